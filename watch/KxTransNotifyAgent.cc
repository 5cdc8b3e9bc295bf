#include "KxTransNotifyAgent.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <vector>

#include "KxTransDBMgr.h"
#include "KxTransFileScanner.h"
#include "Misc.h"
#include "frame/Log.h"
#include "watch/EventRules.h"
#include "watch/FileNotice.h"
#include "watch/FolderLookup.h"
#include "watch/WatchHealth.h"

static constexpr const char* kLogSource = "KxTransNotifyAgent";

using MediaLibrary::ScopedMutexLock;

namespace {

constexpr int kEventWait = 5;     // seconds
constexpr time_t kRootCheck = 5;  // seconds between looks at the folders of the list

time_t monotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

bool waitFor(sem_t& semaphore) {
  while (sem_wait(&semaphore) != 0)
    if (errno != EINTR) return false;
  return true;
}

std::string folderOf(const std::string& path, const std::string& name) {
  return path.substr(0, path.size() - name.size());
}

KxDBMgrFileParam recordOf(const std::string& path, const std::string& name,
                          const struct stat& info) {
  return {name, folderOf(path, name), info.st_mtime, info.st_size};
}

bool isBelow(const std::string& folder, const KxTransFileSetting& setting) {
  const std::string root = FolderLookup::normalised(setting.getFilePath());
  return folder != root && FolderLookup::isWithin(folder, root);
}

KxWatchState_e stateAfter(int error) {
  switch (error) {
  case 0:
    return WATCH_ON;
  case ENOSPC:
    return WATCH_PARTIAL;
  case ENOENT:
  case ENOTDIR:
    return WATCH_MISSING;
  default:
    return WATCH_FAILED;
  }
}

}  // namespace

KxTransNotifyAgent* KxTransNotifyAgent::getInstance() {
  static KxTransNotifyAgent instance;
  return &instance;
}

KxTransNotifyAgent::KxTransNotifyAgent()
    : m_notify(std::make_unique<F2notify>()), m_nasVol(std::make_unique<NasVol>()),
      m_config(nullptr), m_signalSem(), m_handOverSem(), m_mutex(), m_flagLock(), m_running(false),
      m_restart(false), m_thread(), m_clientId(0), m_ready(false), m_ending(false),
      m_areWalksSkipped(false), m_restartAsked(false), m_nextCheck(0) {
  NasVol::setInstance(m_nasVol.get());
  KX_LOG("add indexable vol dir for NasVol\n");
  m_nasVol->genIndexableVolDir();
}

KxTransNotifyAgent::~KxTransNotifyAgent() {
  if (m_ready) stop();
}

int KxTransNotifyAgent::init(int clientId, KxTransFileConfig* config) {
  if (config == nullptr) return 1;
  m_clientId = clientId;
  m_config = config;
  if (sem_init(&m_signalSem, 0, 0) != 0 || sem_init(&m_handOverSem, 0, 0) != 0) return 1;
  if (miscMutexInit(m_mutex, nullptr) != 0 || miscRWLockInit(m_flagLock, nullptr) != 0) return 1;
  m_ready = true;
  struct sigaction action {};
  action.sa_handler = &KxTransNotifyAgent::fnotifySigHupHandler;
  action.sa_flags = SA_RESTART;
  if (sigaction(SIGHUP, &action, nullptr) != 0) return 1;
  return m_notify->x_inotifytools_pre_init(&m_signalSem);
}

int KxTransNotifyAgent::uninit() {
  if (!m_ready) return 1;
  m_ready = false;
  miscRWLockDestroy(m_flagLock);
  miscMutexDestroy(m_mutex);
  sem_destroy(&m_handOverSem);
  sem_destroy(&m_signalSem);
  m_config = nullptr;
  return 0;
}

bool KxTransNotifyAgent::checkStatus() {
  miscRWLockRdLock(m_flagLock);
  const bool running = m_running;
  miscRWLockUnLock(m_flagLock);
  return running;
}

bool KxTransNotifyAgent::getStatus() {
  return checkStatus();
}

void KxTransNotifyAgent::setStatus(bool running) {
  miscRWLockWrLock(m_flagLock);
  m_running = running;
  miscRWLockUnLock(m_flagLock);
}

bool KxTransNotifyAgent::isRestart() {
  miscRWLockRdLock(m_flagLock);
  const bool restart = m_restart;
  miscRWLockUnLock(m_flagLock);
  return restart;
}

void KxTransNotifyAgent::setRestart(bool restart) {
  miscRWLockWrLock(m_flagLock);
  m_restart = restart;
  miscRWLockUnLock(m_flagLock);
}

void KxTransNotifyAgent::postNotifySemaphone() {
  sem_post(&m_signalSem);
}

void KxTransNotifyAgent::fnotifySigHupHandler(int sig) {
  const int savedErrno = errno;
  KxTransNotifyAgent* agent = getInstance();
  if (sig == SIGHUP && agent->m_ready) agent->postNotifySemaphone();
  errno = savedErrno;
}

bool KxTransNotifyAgent::isEnding() {
  return m_ending;
}

bool KxTransNotifyAgent::isOnWorker() {
  return checkStatus() && pthread_equal(m_thread, pthread_self()) != 0;
}

int KxTransNotifyAgent::start() {
  const std::lock_guard<std::mutex> life(m_life);
  if (!m_ready || checkStatus()) return 1;
  m_ending = false;
  return startLocked();
}

int KxTransNotifyAgent::startLocked() {
  if (m_notify->x_inotifytools_initialize() != 0) return 1;
  m_restartAsked = false;
  m_nextCheck = monotonicSeconds() + kRootCheck;
  m_volumes = volumesBelow(m_config->getFolderSettings());
  int result = importFolderFromConfieFile();
  if (result == 0) {
    setStatus(true);
    result = pthread_create(&m_thread, nullptr, &KxTransNotifyAgent::run, this) == 0 ? 0 : 1;
    if (result != 0) setStatus(false);
  }
  if (result != 0) {
    m_notify->x_inotifytools_cleanup();
    WatchHealth::instance().forgetStates();
  }
  return result;
}

void KxTransNotifyAgent::stopWorkerLocked() {
  setStatus(false);
  postNotifySemaphone();
}

int KxTransNotifyAgent::stop() {
  if (!m_ready) return 1;
  m_ending = true;
  int result = 1;
  {
    const std::lock_guard<std::mutex> life(m_life);
    if (checkStatus()) {
      stopWorkerLocked();
      result = pthread_join(m_thread, nullptr) == 0 ? 0 : 1;
      WatchHealth::instance().forgetStates();
    }
  }
  // It waits for the lock above and then finds that it must not go on.
  const std::lock_guard<std::mutex> lock(m_restarterMutex);
  if (m_restarter.joinable()) m_restarter.join();
  return result;
}

int KxTransNotifyAgent::restartKxmonitor() {
  const std::lock_guard<std::mutex> life(m_life);
  if (!m_ready) return 1;
  if (checkStatus()) {
    setRestart(true);
    stopWorkerLocked();
    waitFor(m_handOverSem);
    pthread_join(m_thread, nullptr);
  }
  WatchHealth::instance().forgetStates();
  return isEnding() ? 1 : startLocked();
}

// The worker cannot wait for its own end.
void KxTransNotifyAgent::restartSoon() {
  m_restartAsked = false;
  const std::lock_guard<std::mutex> lock(m_restarterMutex);
  if (isEnding()) return;
  // The one before has long ended: this worker is what it started.
  if (m_restarter.joinable()) m_restarter.join();
  m_restarter = std::thread([this] { restartKxmonitor(); });
}

int KxTransNotifyAgent::importFolderFromConfieFile() {
  KxTransFileScanner* scanner = KxTransFileScanner::getInstance();
  m_areWalksSkipped = false;
  const auto stopped = [this] { return isEnding() || m_areWalksSkipped; };
  for (const KxTransFileSetting& setting : m_config->getFolderSettings()) {
    if (isEnding()) return 1;
    watchRoot(setting);
    if (WatchHealth::instance().stateOf(setting.getFilePath()) == WATCH_MISSING) continue;
    if (!stopped()) scanner->scanFolder(setting, stopped, true);
    if (!stopped()) forgetVanished(setting.getFilePath());
  }
  return isEnding() ? 1 : 0;
}

void KxTransNotifyAgent::skipWalks() {
  m_areWalksSkipped = true;
}

// A scan that follows from an event must not wait for the next request.
void KxTransNotifyAgent::wakeScanner() {
  KxTransFileScanner* scanner = KxTransFileScanner::getInstance();
  if (checkStatus() && !scanner->getStatus()) scanner->start();
}

// 0, or the errno that says why the folder is not watched completely.
int KxTransNotifyAgent::watchTreeLocked(const std::string& path) {
  errno = 0;
  const std::string folder = FolderLookup::normalised(path);
  if (m_notify->x_my_inotifytools_watch_recursively_with_exclude(folder.c_str(), 0, nullptr) == 0)
    return 0;
  return errno != 0 ? errno : EIO;
}

void KxTransNotifyAgent::watchRoot(const KxTransFileSetting& setting) {
  const std::string path = setting.getFilePath();
  ScopedMutexLock lock(m_mutex);
  struct stat info {};
  const bool exists = stat(path.c_str(), &info) == 0;
  int error = exists ? watchTreeLocked(path) : errno;
  WatchHealth::instance().set(path, stateAfter(error), error);
  if (error == 0 || error == ENOSPC) {
    m_roots[path] = {info.st_dev, info.st_ino};
  } else {
    m_roots.erase(path);
  }
  if (error != 0) {
    KX_LOG_LEVEL(3, "[notify] %s is not watched completely, errno=%d, strerror=%s\n", path.c_str(),
                 error, strerror(error));
  }
}

int KxTransNotifyAgent::addFolder(KxTransFileSetting setting) {
  KX_LOG("in order to prevent the new addFolder is not in NasVol, redo genIndexableVolDir()\n");
  const std::string path = setting.getFilePath();
  KxTransFileSetting root;
  const bool isListed = m_config->getFolderSetting(path, root, false) == 0;
  if (isListed && FolderLookup::normalised(root.getFilePath()) == FolderLookup::normalised(path)) {
    m_nasVol->genIndexableVolDir();
    watchRoot(root);
    return WatchHealth::instance().stateOf(root.getFilePath()) == WATCH_ON ? 0 : 1;
  }
  ScopedMutexLock lock(m_mutex);
  m_nasVol->genIndexableVolDir();
  const int error = watchTreeLocked(path);
  if (error == ENOSPC && isListed)
    WatchHealth::instance().set(root.getFilePath(), WATCH_PARTIAL, error);
  return error == 0 ? 0 : 1;
}

int KxTransNotifyAgent::delFolder(KxTransFileSetting setting) {
  return delFolder(setting.getFilePath());
}

int KxTransNotifyAgent::delFolder(std::string path) {
  if (m_config->delFolder(path) != 0) return 1;
  if (!isOnWorker()) return restartKxmonitor();
  m_restartAsked = true;
  return 0;
}

int KxTransNotifyAgent::updateFolder(KxTransFileSetting setting) {
  return m_config->updateFolder(setting);
}

int KxTransNotifyAgent::moveFolder(std::string from, std::string to) {
  ScopedMutexLock lock(m_mutex);
  m_notify->x_inotifytools_replace_filename(from.c_str(), to.c_str());
  return 0;
}

void KxTransNotifyAgent::unwatchFolder(const std::string& path) {
  const std::string folder = FolderLookup::normalised(path);
  std::vector<KxTransFileSetting> inside;
  {
    ScopedMutexLock lock(m_mutex);
    std::erase_if(m_roots,
                  [&](const auto& root) { return FolderLookup::normalised(root.first) == folder; });
    KxTransFileSetting outer;
    if (m_config->getFolderSetting(folder, outer, false) == 0) return;
    m_notify->x_inotifytools_remove_watch_by_filename(folder.c_str());
  }
  for (const KxTransFileSetting& other : m_config->getFolderSettings()) {
    if (FolderLookup::isWithin(FolderLookup::normalised(other.getFilePath()), folder))
      watchRoot(other);
  }
}

void KxTransNotifyAgent::completeWatches() {
  if (!checkStatus()) return;
  for (const KxTransFileSetting& setting : m_config->getFolderSettings())
    if (WatchHealth::instance().stateOf(setting.getFilePath()) != WATCH_ON) watchRoot(setting);
}

std::string KxTransNotifyAgent::translateEvent(inotify_event* event) {
  const char* folder = m_notify->x_inotifytools_filename_from_wd(event->wd);
  if (folder == nullptr) return "";
  return std::string(folder) + event->name;
}

void* KxTransNotifyAgent::run(void* self) {
  static_cast<KxTransNotifyAgent*>(self)->runImpl();
  return nullptr;
}

void KxTransNotifyAgent::runImpl() {
  work();
  m_notify->x_inotifytools_cleanup();
  if (!isRestart()) return;
  setRestart(false);
  sem_post(&m_handOverSem);
}

void KxTransNotifyAgent::work() {
  while (checkStatus()) {
    // Deleted folders come in trees: one restart follows when they are all dealt with.
    inotify_event* event = m_notify->x_inotifytools_next_event(m_restartAsked ? 0 : kEventWait);
    if (event != nullptr) {
      handleEvent(event);
    } else if (m_restartAsked) {
      restartSoon();
    } else {
      m_nextCheck = 0;
    }
    if (monotonicSeconds() >= m_nextCheck && checkStatus()) checkRoots();
  }
}

// Folders of the list come and go with their volumes, and no event of their own tells.
void KxTransNotifyAgent::checkRoots() {
  m_nextCheck = monotonicSeconds() + kRootCheck;
  for (const KxTransFileSetting& setting : m_config->getFolderSettings()) checkRoot(setting);
  checkVolumes();
}

// Volumes that are mounted below the folders of the list, and what they are.
KxTransNotifyAgent::Volumes
KxTransNotifyAgent::volumesBelow(const std::vector<KxTransFileSetting>& settings) {
  Volumes volumes;
  m_nasVol->genIndexableVolDir();
  for (const std::string& mounted : m_nasVol->getIndexableVolDirs()) {
    const std::string folder = FolderLookup::normalised(mounted);
    struct stat info {};
    if (std::any_of(settings.begin(), settings.end(),
                    [&](const auto& s) { return isBelow(folder, s); }) &&
        stat(folder.c_str(), &info) == 0)
      volumes[folder] = info.st_dev;
  }
  return volumes;
}

// Nor does one tell that a volume is mounted or unmounted below one of them.
void KxTransNotifyAgent::checkVolumes() {
  const std::vector<KxTransFileSetting> settings = m_config->getFolderSettings();
  const Volumes volumes = volumesBelow(settings);
  Volumes changed;
  std::set_symmetric_difference(volumes.begin(), volumes.end(), m_volumes.begin(), m_volumes.end(),
                                std::inserter(changed, changed.end()));
  m_volumes = volumes;
  for (const auto& [folder, device] : changed) {
    // They belong to what the volume hides, or to what is no longer there.
    ScopedMutexLock lock(m_mutex);
    m_notify->x_inotifytools_remove_watch_by_filename(folder.c_str());
  }
  for (const KxTransFileSetting& setting : settings) {
    const auto holds = [&](const auto& volume) { return isBelow(volume.first, setting); };
    if (std::none_of(changed.begin(), changed.end(), holds)) continue;
    KX_LOG_LEVEL(3, "[notify] a volume below %s came or went, watch and scan the folder\n",
                 setting.getFilePath().c_str());
    watchRoot(setting);
    KxTransFileScanner::getInstance()->addFolder(setting);
    wakeScanner();
  }
}

void KxTransNotifyAgent::checkRoot(const KxTransFileSetting& setting) {
  const std::string path = setting.getFilePath();
  struct stat info {};
  const int error = stat(path.c_str(), &info) == 0 ? 0 : errno;
  {
    ScopedMutexLock lock(m_mutex);
    const auto known = m_roots.find(path);
    const bool isWatched = known != m_roots.end();
    const bool isSame = isWatched && error == 0 && known->second.device == info.st_dev &&
                        known->second.inode == info.st_ino;
    if (isSame) return;
    // What is left of the old one would report paths that are no longer true.
    if (isWatched) {
      const std::string folder = FolderLookup::normalised(path);
      m_notify->x_inotifytools_remove_watch_by_filename(folder.c_str());
    }
    if (isWatched) m_roots.erase(known);
    if (error != 0) {
      WatchHealth::instance().set(path, stateAfter(error), error);
      if (isWatched) KX_LOG_LEVEL(3, "[notify] folder %s is gone\n", path.c_str());
      return;
    }
  }
  if (WatchHealth::instance().stateOf(path) == WATCH_FAILED) return;
  KX_LOG_LEVEL(3, "[notify] folder %s is there, watch and scan it\n", path.c_str());
  watchRoot(setting);
  KxTransFileScanner::getInstance()->addFolder(setting);
  wakeScanner();
}

void KxTransNotifyAgent::recoverLostEvents() {
  const bool mustScan = WatchHealth::instance().noteLoss();
  KX_LOG_LEVEL(3, "[notify] events were lost, watch and scan everything again\n");
  // Folders that were created meanwhile are not watched yet.
  for (const KxTransFileSetting& setting : m_config->getFolderSettings()) watchRoot(setting);
  if (mustScan) KxTransFileScanner::getInstance()->buildAll();
  wakeScanner();
}

KxTransFileSetting KxTransNotifyAgent::settingOf(const std::string& path) {
  KxTransFileSetting setting;
  m_config->getFolderSetting(path, setting, false);
  return setting;
}

void KxTransNotifyAgent::handleEvent(inotify_event* event) {
  const EventAction action = actionOf(event->mask);
  if (action == EventAction::Recover) return recoverLostEvents();
  if (action == EventAction::LookAtRoots) return leaveVolume(translateEvent(event));
  const std::string name = event->name;
  const bool isFolder = (event->mask & IN_ISDIR) != 0;
  if (!isFolder && !isVideoName(name)) {
    KX_LOG("%s do not support\n", name.c_str());
    return;
  }
  KX_LOG("[notify] event->name=%s, event->mask=%u\n", name.c_str(), event->mask);
  const std::string path = translateEvent(event);
  if (path.empty() || name.empty()) return;
  switch (action) {
  case EventAction::EnterFolder:
    return enterFolder(path, name);
  case EventAction::LeaveFolder:
    return leaveFolder(path);
  case EventAction::AddFile:
    return addFile(path, name);
  case EventAction::LinkFile:
    return addLinkedFile(path, name);
  case EventAction::LeaveFile:
    return leaveFile(path, name);
  default:
    return;
  }
}

// The watches of a file system end with it, also when it is mounted again before anybody looks.
void KxTransNotifyAgent::leaveVolume(const std::string& folder) {
  bool isKnown = m_volumes.erase(folder) > 0;
  {
    ScopedMutexLock lock(m_mutex);
    isKnown |= std::erase_if(m_roots, [&](const auto& root) {
                 return FolderLookup::normalised(root.first) == folder;
               }) > 0;
  }
  // Each of its folders tells.
  if (isKnown) checkRoots();
}

void KxTransNotifyAgent::enterFolder(const std::string& path, const std::string& name) {
  KX_LOG_AS("handleEvent", "[notify] add folder: %s\n", path.c_str());
  if (!isValidDirName(name)) return;
  KxTransFileSetting setting = settingOf(path);
  setting.setFilePath(path);
  addFolder(setting);
  if (setting.getTarget().empty()) return;
  KxTransFileScanner::getInstance()->scanFolder(
      setting, [this] { return !checkStatus(); }, true);
}

void KxTransNotifyAgent::leaveFolder(const std::string& path) {
  KX_LOG_AS("handleEvent", "[notify] delete folder: %s\n", path.c_str());
  {
    // A folder that was moved out keeps its watches otherwise.
    ScopedMutexLock lock(m_mutex);
    m_notify->x_inotifytools_remove_watch_by_filename(path.c_str());
  }
  delFolder(path);
  forgetFolder(path);
}

void KxTransNotifyAgent::addFile(const std::string& path, const std::string& name) {
  KX_LOG_AS("handleEvent", "[notify] add file: %s\n", path.c_str());
  const KxTransFileSetting setting = settingOf(path);
  struct stat info {};
  if (setting.isEmpty() || setting.getTargetAsInt64() < 0 || !isValidPath(path) ||
      lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    KX_LOG_AS("handleEvent", "Invalid path: %s\n", path.c_str());
    return;
  }
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  const KxDBMgrFileParam file = recordOf(path, name, info);
  if (withStore([&] { return store->getModifiedTime(file); }) == file.modifiedTime) return;
  const int result = withStore([&] {
    // The folder may have left the list, with all its jobs, or got another target just now.
    const KxTransFileSetting now = settingOf(path);
    if (now.isEmpty()) return 1;
    const long long target = now.getTargetAsInt64();
    const int queued = queueWatchedFile(path, target);
    // What could not be queued is not recorded, so that a scan tries it again.
    if (queued == 0 || !mayBeQueuedLater(target)) store->addDBFile(file);
    return queued;
  });
  if (result == 0) tellQueued();
}

// A new file has one name and is reported again when its writer closes it; a hard link is
// complete as it comes.
void KxTransNotifyAgent::addLinkedFile(const std::string& path, const std::string& name) {
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink > 1)
    addFile(path, name);
}

void KxTransNotifyAgent::leaveFile(const std::string& path, const std::string& name) {
  KX_LOG_AS("handleEvent", "[notify] delete file: %s\n", path.c_str());
  forgetFile(KxDBMgrFileParam(name, folderOf(path, name), 0, 0));
}
