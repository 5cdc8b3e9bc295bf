#include "KxTransFileScanner.h"

#include <cerrno>
#include <memory>
#include <unordered_map>

#include "KxHostPlatform.h"
#include "KxTransDBMgr.h"
#include "Misc.h"
#include "frame/Log.h"
#include "watch/FileNotice.h"
#include "watch/FolderLookup.h"
#include "watch/FolderWalk.h"
#include "watch/WatchHealth.h"

static constexpr const char* kLogSource = "KxTransFileScanner";

using MediaLibrary::ScopedMutexLock;

namespace {

// What one walk knows of the files recorded in the folder it is in, so that an unchanged file
// costs no query of its own.
class KnownTimes {
 public:
  void load(const std::string& folder) {
    m_times.clear();
    const auto files = withStore([&] { return KxTransDBMgr::getInstance()->getDBFiles(folder); });
    for (const KxDBMgrFileParam& file : files) m_times.emplace(file.filename, file.modifiedTime);
  }
  bool isUnchanged(const std::string& name, int64_t seconds) const {
    const auto known = m_times.find(name);
    return known != m_times.end() && known->second == seconds;
  }

 private:
  std::unordered_map<std::string, int64_t> m_times;
};

// One walk of scanFolder().
class Scan {
 public:
  Scan(KxTransFileConfig& config, const KxTransFileSetting& setting, bool followsList)
      : m_config(config), m_setting(setting),
        m_top(FolderLookup::normalised(setting.getFilePath())), m_isListed(isListed(m_top)),
        m_followsList(followsList || listedTarget() == setting.getTarget()) {}

  bool enter(const std::string& folder) {
    KxTransFileSetting here = settingFor(folder);
    here.setFilePath(folder);
    if (folder != m_top) here.dump();
    if (here.getTarget().empty()) {
      KX_LOG_AS("scanFolder", "empty\n");
      return false;
    }
    if (here.getTargetAsInt64() < 0) return false;
    m_known.load(folder);
    return true;
  }

  // Records a file that is new or changed, then queues it.
  void notice(const std::string& folder, const std::string& name, const struct stat& info) {
    if (m_known.isUnchanged(name, info.st_mtime)) return;
    KxTransDBMgr* store = KxTransDBMgr::getInstance();
    const KxDBMgrFileParam file(name, folder, info.st_mtime, info.st_size);
    const long long stored = withStore([&] { return store->getModifiedTime(file); });
    if (stored == file.modifiedTime) return;
    withStore([&] {
      if (hasLeft(folder)) return 1;
      return stored < 1 ? store->addDBFile(file) : store->updateDBFile(file);
    });
    const int result = withStore([&] {
      if (hasLeft(folder)) return 1;
      // As it is now: the list may have changed since the folder was entered.
      const long long target = settingFor(folder).getTargetAsInt64();
      if (queueWatchedFile(folder + name, target) == 0) return 0;
      // Nothing may stay recorded that was not queued: no later scan would look at it.
      if (mayBeQueuedLater(target)) store->deleteDBFile(file);
      return 1;
    });
    if (result == 0) tellQueued();
  }

 private:
  bool isListed(const std::string& path) {
    KxTransFileSetting ignored;
    return m_config.getFolderSetting(path, ignored, false) == 0;
  }
  std::string listedTarget() { return m_config.getTarget(m_top); }
  // The list lost the folder while it was being walked; its jobs are gone already.
  bool hasLeft(const std::string& folder) { return m_isListed && !isListed(folder); }

  // A folder of the list that lies within the walked one has its own target. Only a walk that was
  // asked for with another target than the list has keeps to that.
  KxTransFileSetting settingFor(const std::string& folder) {
    KxTransFileSetting nearest;
    if (m_config.getFolderSetting(folder, nearest, false) != 0) return m_setting;
    const std::string own = FolderLookup::normalised(nearest.getFilePath());
    return m_followsList || own.size() > m_top.size() ? nearest : m_setting;
  }

  KxTransFileConfig& m_config;
  const KxTransFileSetting m_setting;
  const std::string m_top;
  const bool m_isListed;
  const bool m_followsList;
  KnownTimes m_known;
};

}  // namespace

KxTransFileScanTask::KxTransFileScanTask(int type) : m_type(type) {}
KxTransFileScanTask::KxTransFileScanTask(int type, KxTransFileSetting setting)
    : m_setting(setting), m_type(type) {}
KxTransFileScanTask::~KxTransFileScanTask() = default;

int KxTransFileScanQueue::init() {
  if (miscMutexInit(m_mutex, nullptr) != 0) {
    KX_LOG("mutex init failed\n");
    return 1;
  }
  return 0;
}

int KxTransFileScanQueue::uninit() {
  return miscMutexDestroy(m_mutex) == 0 ? 0 : 1;
}

int KxTransFileScanQueue::push(KxTransFileScanTask* task) {
  ScopedMutexLock lock(m_mutex);
  m_tasks.push_back(task);
  return 0;
}

KxTransFileScanTask* KxTransFileScanQueue::pop() {
  ScopedMutexLock lock(m_mutex);
  if (m_tasks.empty()) return nullptr;
  KxTransFileScanTask* task = m_tasks.front();
  m_tasks.pop_front();
  return task;
}

void KxTransFileScanQueue::clear() {
  ScopedMutexLock lock(m_mutex);
  for (KxTransFileScanTask* task : m_tasks) delete task;
  m_tasks.clear();
}

size_t KxTransFileScanQueue::size() {
  ScopedMutexLock lock(m_mutex);
  return m_tasks.size();
}

KxTransFileScanner* KxTransFileScanner::getInstance() {
  static KxTransFileScanner instance;
  return &instance;
}

KxTransFileScanner::KxTransFileScanner()
    : m_config(nullptr), m_running(false), m_statusLock(), m_wakeUp(), m_thread(), m_mutex() {}

KxTransFileScanner::~KxTransFileScanner() = default;

int KxTransFileScanner::init(KxTransFileConfig* config) {
  if (config == nullptr) return 1;
  m_config = config;
  if (sem_init(&m_wakeUp, 0, 0) != 0) return 1;
  if (miscRWLockInit(m_statusLock, nullptr) != 0) return 1;
  if (miscMutexInit(m_mutex, nullptr) != 0) return 1;
  return m_queue.init();
}

int KxTransFileScanner::uninit() {
  m_queue.clear();
  m_queue.uninit();
  miscRWLockDestroy(m_statusLock);
  miscMutexDestroy(m_mutex);
  sem_destroy(&m_wakeUp);
  m_config = nullptr;
  return 0;
}

bool KxTransFileScanner::checkStatus() {
  miscRWLockRdLock(m_statusLock);
  const bool running = m_running;
  miscRWLockUnLock(m_statusLock);
  return running;
}

bool KxTransFileScanner::getStatus() {
  return checkStatus();
}

void KxTransFileScanner::setRunning(bool running) {
  miscRWLockWrLock(m_statusLock);
  m_running = running;
  miscRWLockUnLock(m_statusLock);
}

int KxTransFileScanner::start() {
  // One start or stop at a time; a second worker would share the flag and the queue.
  ScopedMutexLock lock(m_mutex);
  if (m_config == nullptr || checkStatus()) return 1;
  // Set here and not by the worker: a stop that follows at once must find it set.
  setRunning(true);
  // An earlier worker may have left wake-ups behind, or tasks without one.
  while (sem_trywait(&m_wakeUp) == 0) {
  }
  for (size_t i = getQueueSize(); i > 0; --i) pulse();
  const int result = pthread_create(&m_thread, nullptr, &KxTransFileScanner::run, this);
  if (result != 0) setRunning(false);
  return result;
}

int KxTransFileScanner::stop() {
  ScopedMutexLock lock(m_mutex);
  if (!checkStatus()) return 1;
  setRunning(false);
  pulse();
  return pthread_join(m_thread, nullptr) == 0 ? 0 : 1;
}

void KxTransFileScanner::pulse() {
  sem_post(&m_wakeUp);
}

int KxTransFileScanner::pushTask(KxTransFileScanTask* task) {
  m_queue.push(task);
  pulse();
  return 0;
}

int KxTransFileScanner::buildAll() {
  return pushTask(new KxTransFileScanTask(SCAN_ALL));
}

int KxTransFileScanner::stopBuildAll() {
  m_queue.clear();
  return 0;
}

int KxTransFileScanner::addFolder(KxTransFileSetting setting) {
  if (setting.getTargetAsInt64() < 0 || !isValidPath(setting.getFilePath())) {
    KX_LOG("Invalid parameter : %s : %s\n", setting.getFilePath().c_str(),
           setting.getTarget().c_str());
    return 1;
  }
  return pushTask(new KxTransFileScanTask(SCAN_ADDED, setting));
}

int KxTransFileScanner::updateFolder(KxTransFileSetting setting) {
  if (setting.getTargetAsInt64() < 0 || !isValidPath(setting.getFilePath())) return 1;
  return pushTask(new KxTransFileScanTask(SCAN_UPDATED, setting));
}

size_t KxTransFileScanner::getQueueSize() {
  return m_queue.size();
}

void* KxTransFileScanner::run(void* self) {
  static_cast<KxTransFileScanner*>(self)->runImpl();
  return nullptr;
}

void KxTransFileScanner::runImpl() {
  while (checkStatus()) {
    while (sem_wait(&m_wakeUp) != 0 && errno == EINTR) {
    }
    if (!checkStatus()) break;
    const std::unique_ptr<KxTransFileScanTask> task(m_queue.pop());
    if (task == nullptr) {
      KX_LOG("pop failed\n");
    } else {
      runTask(*task);
    }
  }
  KX_LOG("thread offline\n");
}

void KxTransFileScanner::runTask(const KxTransFileScanTask& task) {
  if (task.m_type == SCAN_ALL) return scanAll();
  if (task.m_type == SCAN_UPDATED) {
    withStore([&] {
      return KxTransDBMgr::getInstance()->resetModifiedTime(
          KxDBMgrFileParam("", FolderLookup::normalised(task.m_setting.getFilePath()), 0, 0));
    });
  }
  scanFolder(task.m_setting, [this] { return !checkStatus(); });
}

void KxTransFileScanner::scanAll() {
  const auto stopped = [this] { return !checkStatus(); };
  const int64_t losses = WatchHealth::instance().beginRepair();
  const bool isRepair = WatchHealth::instance().needsRepair();
  // The list may change during the walks, and with it the places in it.
  std::vector<KxTransFileSetting> settings;
  const auto count = static_cast<unsigned int>(m_config->size());
  for (unsigned int i = 0; i < count; ++i) {
    KxTransFileSetting setting;
    if (m_config->getFolderSetting(i, setting) == 0) {
      settings.push_back(setting);
    } else {
      KX_LOG_AS("runImpl", "can't get file setting\n");
    }
  }
  for (const KxTransFileSetting& listed : settings) {
    KxTransFileSetting setting;
    if (m_config->getFolderSetting(listed.getFilePath(), setting, true) != 0) continue;
    scanFolder(setting, stopped);
    if (isRepair && !stopped()) forgetVanished(setting.getFilePath());
  }
  if (!stopped()) WatchHealth::instance().endRepair(losses);
}

int KxTransFileScanner::scanFolder(KxTransFileSetting setting) {
  return scanFolder(setting, [] { return false; });
}

int KxTransFileScanner::scanFolder(const KxTransFileSetting& setting,
                                   const std::function<bool()>& stopped, bool followsList) {
  setting.dump();
  if (setting.isEmpty() || setting.getTarget().empty()) {
    KX_LOG("empty\n");
    return 1;
  }
  const ScanningMark mark(setting.getFilePath());
  Scan scan(*m_config, setting, followsList);
  FolderWalk::Visitor visitor;
  visitor.enter = [&](const std::string& folder) { return scan.enter(folder); };
  visitor.wanted = isVideoName;
  visitor.file = [&](const std::string& folder, const std::string& name, const struct stat& info) {
    scan.notice(folder, name, info);
  };
  visitor.unreadable = [](const std::string&) { KX_LOG_AS("scanFolder", "opendir failed\n"); };
  visitor.stopped = stopped;
  if (FolderWalk::walk(FolderLookup::normalised(setting.getFilePath()), visitor)) return 0;
  KX_LOG("opendir failed\n");
  return 1;
}
