#include "resources/MediaCatalog.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>

#include "Misc.h"
#include "frame/ChildProcess.h"
#include "resources/ChildWatch.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

constexpr const char* kCatalogTool = "/usr/local/medialibrary/bin/catalogcmd";
constexpr size_t kMaxAnswer = 4096;

// Reads what a child prints until it closes its output; false when the run has to end first.
bool readAnswer(JobRun& run, ChildProcess& child, std::string& answer) {
  std::array<char, 512> buffer;
  while (true) {
    std::array<pollfd, 2> ends = {pollfd{child.stdoutFd(), POLLIN, 0},
                                  pollfd{run.endFd(), POLLIN, 0}};
    poll(ends.data(), ends.size(), 1000);
    if (run.mustEnd()) return false;
    if (ends[0].revents == 0) continue;
    const ssize_t count = read(child.stdoutFd(), buffer.data(), buffer.size());
    if (count <= 0) return true;
    if (answer.size() < kMaxAnswer) answer.append(buffer.data(), static_cast<size_t>(count));
  }
}

// Runs the tool; false when it fails or the run has to end.
bool runTool(JobRun& run, const std::vector<std::string>& arguments, std::string& answer) {
  std::vector<std::string> argv = {miscSystemPath(kCatalogTool)};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  ChildProcess child = startReadChild(argv, {});
  if (!child.valid()) return false;
  if (!readAnswer(run, child, answer)) {
    stopChild(child);
    return false;
  }
  return miscAnalysisRet(child.wait()) == 0;
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

void addToCatalog(JobRun& run, const std::string& picture, const std::string& albumFolder) {
  std::string answer;
  if (!runTool(run, {"createfile", picture}, answer)) return;
  const std::string id = objectId(answer);
  KX_RUNNER_LOG("buf==> %s, objId=%s\n", answer.c_str(), id.c_str());
  if (id.empty()) return;
  if (mountPath(albumFolder).empty()) {
    KX_RUNNER_LOG("can not get mount path\n");
    return;
  }
  std::string ignored;
  runTool(run, {"addToPicAlbum", id + ":" + albumFolder, "1"}, ignored);
}

}  // namespace runner
