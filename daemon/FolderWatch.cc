#include "daemon/FolderWatch.h"

#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "daemon/RequestJson.h"
#include "daemon/UnitControl.h"
#include "frame/Log.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";
constexpr int kClientId = 0;
constexpr int kAllProfiles = 0x7f;
constexpr size_t kRoomForRest = 8192;  // the status beside its rows

KxTransFileMonitor* monitor() {
  return KxTransFileMonitor::getInstance();
}

void onQueued(void* loop) {
  static_cast<ScheduleLoop*>(loop)->notifySoon();
}

void onLeaving(void*, const std::string& path) {
  const bool isFolder = path.back() == '/';
  stopUnits([&](const KxDBTaskParam& job) {
    return isFolder ? job.src.compare(0, path.size(), path) == 0 : job.src == path;
  });
}

const char* nameOf(KxWatchState_e state) {
  static constexpr const char* kNames[] = {"off", "watched", "partial", "missing", "failed"};
  return kNames[state];
}

nlohmann::json rowOf(const KxWatchedFolder& folder) {
  return {{"path", folder.setting.getFilePath()},
          {"target", folder.setting.getTargetAsInt64()},
          {"options", folder.setting.getOptions()},
          {"state", nameOf(folder.state)},
          {"error", folder.error == 0 ? "" : strerror(folder.error)}};
}

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), free);
  return real ? real.get() : "";
}

}  // namespace

FolderWatch::FolderWatch(ScheduleLoop& loop)
    : m_loop(loop), m_listener{&loop, onQueued, onLeaving} {}

FolderWatch::~FolderWatch() {
  KxTransFileMonitor::setListener(nullptr);
}

bool FolderWatch::init(const std::string& libraryFile, const std::string& folderFile) {
  m_isReady = monitor()->init(kClientId, {libraryFile, folderFile}) == 0;
  if (m_isReady) KxTransFileMonitor::setListener(&m_listener);
  return m_isReady;
}

void FolderWatch::start() {
  if (m_isReady) m_starting = std::async(std::launch::async, [this] { run(); });
}

void FolderWatch::run() {
  KX_LOG_LEVEL(4, "watching %d folders\n", monitor()->getFolderSize());
  if (monitor()->startAll() != 0 && !m_isEnding)
    KX_LOG_LEVEL(2, "folder watching could not be started completely\n");
  m_loop.notify();
}

bool FolderWatch::stop(std::chrono::milliseconds limit) {
  if (!m_starting.valid()) return true;
  m_isEnding = true;
  auto stopping = std::async(std::launch::async, [this] {
    // A start that has not come to its scans yet does not see the first stop.
    do monitor()->stopAll();
    while (m_starting.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready);
    monitor()->stopAll();
    monitor()->uninit();
  });
  if (stopping.wait_for(limit) == std::future_status::ready) {
    m_starting = {};
    return true;
  }
  // The process ends with _exit(), and whatever hangs in a file system ends with it.
  new std::future<void>(std::move(stopping));
  return false;
}

void checkTarget(const std::string& target) {
  const bool isNumber = !target.empty() && target.size() <= 3 &&
                        target.find_first_not_of("0123456789") == std::string::npos;
  if (!isNumber || std::stoi(target) > kAllProfiles)
    throw RequestError("the target is not a number between 0 and " + std::to_string(kAllProfiles));
}

void checkWatchable(const std::string& path) {
  struct stat info {};
  // A final "/" would follow a link.
  const std::string folder = path.substr(0, path.find_last_not_of('/') + 1);
  if (lstat(folder.c_str(), &info) != 0) throw RequestError("there is no folder " + path);
  if (S_ISLNK(info.st_mode))
    throw RequestError(path + " is a link; watch the folder that it leads to");
  if (!S_ISDIR(info.st_mode)) throw RequestError(path + " is not a folder");
  if (!isValidPath(path)) throw RequestError("the service's own folders cannot be watched");
  const NasVol* volumes = NasVol::getInstance();
  if (volumes == nullptr) return;
  for (const std::string& name : {path, resolved(path)}) {
    if (!volumes->isIndexable(name))
      throw RequestError(path + " does not lie on a volume that can be watched");
  }
}

Answer watchStatus(const KxSockData_s& request) {
  const KxWatchStatus status = monitor()->getWatchStatus();
  const int32_t first = requestNumber(request, 1);
  if (first < 0) throw RequestError("the first row wanted is out of range");
  Answer answer;
  JsonPage page(KxSockData_s::kTextSize - kRoomForRest);
  for (size_t i = static_cast<size_t>(first); i < status.folders.size(); ++i)
    if (!page.add(rowOf(status.folders[i]))) break;
  answer.value2 = static_cast<int32_t>(status.folders.size());
  answer.value3 = page.rows();
  const std::string rest = jsonText({{"scanner", status.isScannerRunning},
                                     {"notify", status.isNotifyRunning},
                                     {"scanning", status.scanning},
                                     {"queuedScans", status.queuedScans},
                                     {"lostEvents", status.lostEvents},
                                     {"lastLost", status.lastLost},
                                     {"needsScan", status.needsScan}});
  answer.text = rest.substr(0, rest.size() - 1) + ",\"folders\":" + page.text() + "}";
  return answer;
}

}  // namespace xcoded
