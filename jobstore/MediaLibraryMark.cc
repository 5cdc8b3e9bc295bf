#include "jobstore/MediaLibraryMark.h"

#include <unistd.h>

#include <chrono>
#include <vector>

#include "Misc.h"
#include "frame/ChildProcess.h"
#include "jobstore/LogSite.h"

namespace kxjobstore {
namespace {

constexpr const char* kCommand = "/usr/local/medialibrary/bin/catalogcmd";
// An upper bound only: the wait ends with the child, also for callers that hold locks.
constexpr std::chrono::milliseconds kLongestStep(500);

bool runCommand(const std::vector<std::string>& argv) {
  // Without the program there is nothing to start.
  if (access(argv[0].c_str(), X_OK) != 0) return false;
  miscPrintCmdVec(argv);
  // Not by a fork: its cost grows with the memory of this process, and callers hold locks.
  ChildProcess child = ChildProcess::spawn(argv, {});
  if (!child.valid()) return false;
  auto status = child.waitFor(kLongestStep);
  while (!status) status = child.waitFor(kLongestStep);
  return checkSystemReturn(*status) == 0;
}

}  // namespace

void updateMLDBTranscodeStatus(const std::string& src, int value) {
  const std::vector<std::string> argv = {miscSystemPath(kCommand), "TranscodeStatus", src,
                                         value == kMarkQueued ? "-2" : "0"};
  if (!runCommand(argv))
    KX_LOG_SITE(LogSite::here(), "update video status change to media library fail\n");
}

}  // namespace kxjobstore
