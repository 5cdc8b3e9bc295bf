#include "KxTransFileMonitor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "KxHostPlatform.h"
#include "KxTransDBMgr.h"
#include "KxTransFileScanner.h"
#include "KxTransNotifyAgent.h"
#include "Misc.h"
#include "frame/Log.h"
#include "watch/FileNotice.h"
#include "watch/FolderLookup.h"
#include "watch/WatchHealth.h"

static constexpr const char* kLogSource = "KxTransFileMonitor";

using MediaLibrary::ScopedMutexLock;

namespace {

KxTransFileScanner* scanner() {
  return KxTransFileScanner::getInstance();
}

KxTransNotifyAgent* agent() {
  return KxTransNotifyAgent::getInstance();
}

bool isRealFolder(const std::string& path) {
  // A final "/" would follow a link.
  const size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return !path.empty();
  struct stat info {};
  return lstat(path.substr(0, end + 1).c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Files that were queued for the target of a folder around theirs are new for their own.
void forgetRecords(const std::string& path) {
  const KxDBMgrFileParam folder("", FolderLookup::normalised(path), 0, 0);
  withStore([&] { return KxTransDBMgr::getInstance()->deleteDBFolder(folder); });
}

}  // namespace

KxTransFileMonitor* KxTransFileMonitor::getInstance() {
  static KxTransFileMonitor instance;
  return &instance;
}

KxTransFileMonitor::KxTransFileMonitor() : m_mutex() {}

KxTransFileMonitor::~KxTransFileMonitor() = default;

int KxTransFileMonitor::init(int clientId, KxTransFileInit_s paths) {
  if (miscMutexInit(m_mutex, nullptr) != 0) return 1;
  WatchHealth::instance().reset();
  killPreviousKxmonitor();
  if (m_config.init(std::move(paths)) != 0) return 1;
  if (agent()->init(clientId, &m_config) != 0) return 1;
  return scanner()->init(&m_config) == 0 ? 0 : 1;
}

int KxTransFileMonitor::uninit() {
  scanner()->uninit();
  agent()->uninit();
  return miscMutexDestroy(m_mutex) == 0 ? 0 : 1;
}

int KxTransFileMonitor::killPreviousKxmonitor() {
  const char* const argv[] = {"/bin/ps", "-o", "pid,comm,args", nullptr};
  std::string output;
  if (MyUtil_ExecSyncWithOutputString(output, argv) != 0) {
    KX_LOG("grep process fail");
    return 1;
  }
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("fsmond") == std::string::npos ||
        line.find("-client:xcoded") == std::string::npos)
      continue;
    const int pid = atoi(line.c_str());
    // 0 and negative numbers are whole groups of processes, and 1 is the system.
    if (pid <= 1 || pid == getpid()) continue;
    KX_LOG("kill pid:%d, %s", pid, line.c_str());
    if (kill(pid, SIGKILL) != 0) KX_LOG("kill fail:%d", pid);
  }
  return 0;
}

int KxTransFileMonitor::startScanner() {
  if (scanner()->getStatus()) {
    KX_LOG("scanner is already running, do not running it again\n");
    return 1;
  }
  return scanner()->start() == 0 ? 0 : 1;
}

int KxTransFileMonitor::startNotify() {
  if (agent()->getStatus()) {
    KX_LOG("notify is already running, do not running it again\n");
    return 1;
  }
  return agent()->start();
}

int KxTransFileMonitor::startAll() {
  const int scannerResult = startScanner();
  const int notifyResult = startNotify();
  return scannerResult == 0 && notifyResult == 0 ? 0 : 1;
}

int KxTransFileMonitor::stopAll() {
  const int scannerResult = stopScanner();
  const int notifyResult = stopNotify();
  // The agent starts it when it finds something to scan.
  const int lastResult = stopScanner();
  return scannerResult == 0 && notifyResult == 0 && lastResult == 0 ? 0 : 1;
}

int KxTransFileMonitor::stopScanner() {
  agent()->skipWalks();
  return scanner()->getStatus() ? scanner()->stop() : 0;
}

int KxTransFileMonitor::stopNotify() {
  const bool wasRunning = agent()->getStatus();
  // Also when it does not run: it may be starting.
  const int result = agent()->stop();
  return wasRunning ? result : 0;
}

int KxTransFileMonitor::getFolderSize() {
  ScopedMutexLock lock(m_mutex);
  return m_config.size();
}

int KxTransFileMonitor::getFolder(unsigned int index, KxTransFileSetting& setting) {
  ScopedMutexLock lock(m_mutex);
  return m_config.getFolderSetting(index, setting);
}

bool KxTransFileMonitor::hasFolder(const std::string& path) {
  ScopedMutexLock lock(m_mutex);
  KxTransFileSetting setting;
  return m_config.getFolderSetting(path, setting, true) == 0;
}

int KxTransFileMonitor::addFolder(std::string path, std::string target) {
  const KxTransFileSetting setting(path, target);
  {
    ScopedMutexLock lock(m_mutex);
    if (!isRealFolder(path)) return 1;
    KxTransFileSetting outer;
    const bool isNested = m_config.getFolderSetting(path, outer, false) == 0;
    if (m_config.addFolder(setting) != 0) return 1;
    if (isNested) forgetRecords(path);
  }
  // Watched first, so that nothing falls between the walk and the watches.
  if (agent()->getStatus()) agent()->addFolder(setting);
  if (!scanner()->getStatus()) scanner()->start();
  scanner()->addFolder(setting);
  return 0;
}

int KxTransFileMonitor::updateFolder(std::string path, std::string target) {
  KxTransFileSetting setting;
  {
    ScopedMutexLock lock(m_mutex);
    if (m_config.getFolderSetting(path, setting, true) != 0) return 1;
    setting.setTarget(target);
    if (m_config.updateFolder(setting) != 0) return 1;
  }
  if (!scanner()->getStatus()) scanner()->start();
  scanner()->updateFolder(setting);
  return 0;
}

int KxTransFileMonitor::buildFolder(std::string path, std::string target) {
  return scanner()->addFolder(KxTransFileSetting(std::move(path), std::move(target)));
}

int KxTransFileMonitor::buildAllFolder() {
  agent()->completeWatches();
  return scanner()->buildAll();
}

int KxTransFileMonitor::stopBuildAll() {
  WatchHealth::instance().dropRepair();
  return scanner()->stopBuildAll();
}

int KxTransFileMonitor::delFolder(std::string path) {
  const std::string folder = FolderLookup::normalised(path);
  {
    ScopedMutexLock lock(m_mutex);
    KxTransFileSetting setting;
    if (m_config.getFolderSetting(path, setting, true) != 0) return 1;
    if (forgetFolder(folder, [&] { return m_config.delFolder(path); }) != 0) return 1;
  }
  agent()->unwatchFolder(folder);
  rescanAround(folder);
  return 0;
}

bool KxTransFileMonitor::isAway(const std::string& path) {
  KxTransFileSetting root;
  return m_config.getFolderSetting(path, root, false) == 0 && !hasEntries(root.getFilePath());
}

// What lay in a folder that has left the list may belong to folders within or around it.
void KxTransFileMonitor::rescanAround(const std::string& path) {
  std::vector<KxTransFileSetting> around;
  KxTransFileSetting outer;
  if (m_config.getFolderSetting(path, outer, false) == 0) {
    outer.setFilePath(path);
    around.push_back(outer);
  }
  for (const KxTransFileSetting& setting : m_config.getFolderSettings()) {
    if (FolderLookup::isWithin(FolderLookup::normalised(setting.getFilePath()), path))
      around.push_back(setting);
  }
  if (!around.empty() && !scanner()->getStatus()) scanner()->start();
  for (const KxTransFileSetting& setting : around) scanner()->addFolder(setting);
}

KxWatchStatus KxTransFileMonitor::getWatchStatus() {
  KxWatchStatus status;
  status.isScannerRunning = scanner()->getStatus();
  status.isNotifyRunning = agent()->getStatus();
  status.queuedScans = static_cast<int>(scanner()->getQueueSize());
  for (const KxTransFileSetting& setting : m_config.getFolderSettings())
    status.folders.push_back({setting, WATCH_OFF, 0});
  WatchHealth::instance().fill(status);
  return status;
}
