#pragma once
/// @file
/// Reacts to files and folders that appear and disappear in watched folders.

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KxHostPlatform.h"
#include "KxTransFileConfig.h"

struct inotify_event;

/// Process-wide agent: the kernel watches and one worker thread. Any thread may call any
/// operation but init(), uninit() and handleEvent(). Results are 0 on success and 1 on failure
/// unless said otherwise. The agent's mutex is held for changes of the watches only, never
/// across a scan.
class KxTransNotifyAgent {
 public:
  static KxTransNotifyAgent* getInstance();
  KxTransNotifyAgent(const KxTransNotifyAgent&) = delete;
  KxTransNotifyAgent& operator=(const KxTransNotifyAgent&) = delete;

  /// Installs a handler for SIGHUP, which makes the agent look at its folders at once.
  /// @param clientId identifies the client that watches; only stored
  /// @param config stays the caller's and outlives the agent's use
  int init(int clientId, KxTransFileConfig* config);
  /// Call it when the agent is stopped.
  int uninit();
  /// Opens the event queue, watches and walks all folders, starts the worker. It may take long;
  /// stop() on another thread ends it with 1.
  int start();
  /// Ends the worker, or a start or restart that is under way, and waits for it.
  /// @return 1 when nothing ran
  int stop();
  bool checkStatus();
  bool getStatus();
  void setStatus(bool running);
  bool isRestart();
  void setRestart(bool restart);
  /// Ends the worker's wait for an event.
  void postNotifySemaphone();
  /// Async-signal-safe.
  static void fnotifySigHupHandler(int sig);
  /// Watches and walks every folder of the list.
  int importFolderFromConfieFile();
  /// Watches a folder with everything below it. @return 1 when some of it is not watched
  int addFolder(KxTransFileSetting setting);
  int delFolder(KxTransFileSetting setting);
  /// Takes a folder out of the list and restarts the agent without it; on the worker itself
  /// the restart follows when the events at hand are dealt with.
  /// @return 1 when the folder is not in the list
  int delFolder(std::string path);
  int updateFolder(KxTransFileSetting setting);
  /// Tells that a watched folder has another path now.
  int moveFolder(std::string from, std::string to);
  int restartKxmonitor();
  /// Full path of an event; empty when its watch is gone.
  std::string translateEvent(inotify_event* event);
  /// Acts on one event. Belongs to the worker.
  void handleEvent(inotify_event* event);

  /// Drops the watches of a folder that has left the list, except those that folders of the
  /// list still need.
  void unwatchFolder(const std::string& path);
  /// Watches again what is not completely watched.
  void completeWatches();
  /// Ends the walks of a start or restart that is under way; its folders are watched all the
  /// same.
  void skipWalks();

 private:
  using Volumes = std::map<std::string, dev_t>;  // by folder, with its final "/"

  // A folder of the list as it was when it was watched.
  struct Root {
    dev_t device;
    ino_t inode;
  };

  KxTransNotifyAgent();
  ~KxTransNotifyAgent();
  static void* run(void* self);
  void runImpl();
  void work();
  int startLocked();
  void stopWorkerLocked();
  void restartSoon();
  bool isEnding();
  bool isOnWorker();

  int watchTreeLocked(const std::string& path);
  void watchRoot(const KxTransFileSetting& setting);
  void checkRoot(const KxTransFileSetting& setting);
  void checkRoots();
  Volumes volumesBelow(const std::vector<KxTransFileSetting>& settings);
  void checkVolumes();
  void recoverLostEvents();
  void wakeScanner();
  KxTransFileSetting settingOf(const std::string& path);
  void leaveVolume(const std::string& folder);
  void enterFolder(const std::string& path, const std::string& name);
  void leaveFolder(const std::string& path);
  void addFile(const std::string& path, const std::string& name);
  void addLinkedFile(const std::string& path, const std::string& name);
  void leaveFile(const std::string& path, const std::string& name);

  std::unique_ptr<F2notify> m_notify;
  std::unique_ptr<NasVol> m_nasVol;
  KxTransFileConfig* m_config;
  sem_t m_signalSem;
  sem_t m_handOverSem;
  pthread_mutex_t m_mutex;              // changes of the watches and m_roots
  std::map<std::string, Root> m_roots;  // by configured path
  pthread_rwlock_t m_flagLock;
  bool m_running;  // under m_flagLock
  bool m_restart;  // under m_flagLock
  pthread_t m_thread;
  int m_clientId;

  std::mutex m_life;  // one start, stop or restart at a time; taken before all others
  std::atomic<bool> m_ready;
  std::atomic<bool> m_ending;  // start and restart must not go on
  std::atomic<bool> m_areWalksSkipped;
  std::thread m_restarter;  // under m_restarterMutex
  std::mutex m_restarterMutex;
  // The worker's; start() fills them before there is one.
  bool m_restartAsked;
  time_t m_nextCheck;  // monotonic seconds
  Volumes m_volumes;
};
