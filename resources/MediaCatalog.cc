#include "resources/MediaCatalog.h"

#include <sys/stat.h>

#include <vector>

#include "Misc.h"
#include "frame/ChildProcess.h"
#include "resources/ChildWatch.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

constexpr const char* kCatalogTool = "/usr/local/medialibrary/bin/catalogcmd";
constexpr size_t kMaxAnswer = 4096;

struct ToolRun {
  ChildEnd end;
  std::string answer;

  bool hasHung() const { return end.kind == ChildEnd::Kind::Stalled; }
};

ToolRun runTool(JobRun& run, const std::vector<std::string>& arguments) {
  std::vector<std::string> argv = {miscSystemPath(kCatalogTool)};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  ToolRun tool;
  ChildProcess child = startReadChild(argv, {});
  if (!child.valid()) return tool;
  tool.end = followPrinter(run, child, [&tool](std::string_view text) {
    if (tool.answer.size() < kMaxAnswer) tool.answer += text;
  });
  return tool;
}

// The first number of an answer.
std::string objectId(const std::string& answer) {
  const size_t first = answer.find_first_of("0123456789");
  if (first == std::string::npos) return "";
  const size_t end = answer.find_first_not_of("0123456789", first);
  return answer.substr(first, end == std::string::npos ? end : end - first);
}

// The folder where the volume of a path is mounted; empty when that cannot be told.
std::string mountPath(std::string path) {
  struct stat here;
  if (stat(path.c_str(), &here) != 0) return "";
  while (path.size() > 1) {
    if (path.back() == '/') path.pop_back();
    const std::string parent = path.substr(0, path.rfind('/') + 1);
    struct stat above;
    if (stat(parent.c_str(), &above) != 0) return "";
    if (above.st_dev != here.st_dev) break;
    path = parent;
  }
  return path;
}

}  // namespace

bool addToCatalog(JobRun& run, const std::string& picture, const std::string& albumFolder) {
  const ToolRun made = runTool(run, {"createfile", picture});
  if (!made.end.ok()) return !made.hasHung();
  const std::string id = objectId(made.answer);
  KX_RUNNER_LOG("buf==> %s, objId=%s\n", made.answer.c_str(), id.c_str());
  if (id.empty()) return true;
  if (mountPath(albumFolder).empty()) {
    KX_RUNNER_LOG("can not get mount path\n");
    return true;
  }
  return !runTool(run, {"addToPicAlbum", id + ":" + albumFolder, "1"}).hasHung();
}

}  // namespace runner
