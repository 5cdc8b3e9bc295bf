#include "engines/ProgressReader.h"

#include "Misc.h"
#include "engines/HostFacts.h"

namespace engines {
namespace {

constexpr const char* kLogParser = "/usr/local/medialibrary/bin/xlogparse.sh";
constexpr int kDone = 100;  // percent

}  // namespace

int readProgress(const std::string& progressLog, int last) {
  if (progressLog.empty() || !exists(progressLog)) return last;
  const std::string parser = miscSystemPath(kLogParser);
  const char* const argv[] = {parser.c_str(), progressLog.c_str(), nullptr};
  ExecResult result;
  if (MyUtil_Exec2(result, true, argv) != 0) return 0;
  const bool isPercent = result.exitStatus >= 0 && result.exitStatus <= kDone;
  return isPercent ? result.exitStatus : 0;
}

}  // namespace engines
