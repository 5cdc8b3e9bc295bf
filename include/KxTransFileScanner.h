#pragma once
/// @file
/// The thread that walks watched folders and queues new or changed media.

#include <pthread.h>
#include <semaphore.h>

#include <deque>
#include <functional>

#include "KxTransFileConfig.h"

/// Kinds of scan task.
enum KxScanTask_e : int {
  SCAN_ALL = 0,      ///< every folder of the list
  SCAN_ADDED = 1,    ///< one folder
  SCAN_UPDATED = 2,  ///< one folder whose files must be queued again
};

/// One unit of the scanner's work. A plain value.
class KxTransFileScanTask {
 public:
  explicit KxTransFileScanTask(int type);
  KxTransFileScanTask(int type, KxTransFileSetting setting);
  virtual ~KxTransFileScanTask();

  KxTransFileSetting m_setting;  ///< empty for SCAN_ALL
  int m_type;                    ///< KxScanTask_e
};

/// First-in, first-out queue of tasks, which it owns until they are popped. Any thread may use
/// it between init() and uninit().
class KxTransFileScanQueue {
 public:
  int init();
  int uninit();
  /// Takes over a task. @return 0
  int push(KxTransFileScanTask* task);
  /// @return the oldest task, owned by the caller, or NULL when there is none.
  KxTransFileScanTask* pop();
  /// Deletes the queued tasks.
  void clear();
  size_t size();

 private:
  std::deque<KxTransFileScanTask*> m_tasks;
  pthread_mutex_t m_mutex;
};

/// Process-wide scanner: one worker thread and its tasks. Any thread may call any operation
/// but init() and uninit(). Results are 0 on success and 1 on failure unless said otherwise.
/// The job store's lock is taken for single calls, never across the file system.
class KxTransFileScanner {
 public:
  static KxTransFileScanner* getInstance();
  KxTransFileScanner(const KxTransFileScanner&) = delete;
  KxTransFileScanner& operator=(const KxTransFileScanner&) = delete;

  /// @param config stays the caller's and outlives the scanner's use
  int init(KxTransFileConfig* config);
  /// Drops the queued tasks. Call it when the scanner is stopped.
  int uninit();
  /// Starts the worker, which goes on with queued tasks.
  /// @return 0, 1 when it runs already, or the error number of the thread call
  int start();
  /// Ends a walk in progress at its next entry and waits for the worker; tasks stay queued.
  /// @return 1 when it does not run
  int stop();
  /// Wakes the worker once.
  void pulse();
  bool checkStatus();
  bool getStatus();
  /// Queues a scan of every folder.
  int buildAll();
  /// Drops the queued tasks; the one in progress goes on.
  int stopBuildAll();
  /// Queues a scan of a folder. @return 1 when its target is negative or its path invalid
  int addFolder(KxTransFileSetting setting);
  /// Queues a scan that takes the files directly in the folder as changed.
  /// @return 1 when its target is negative or its path invalid
  int updateFolder(KxTransFileSetting setting);
  size_t getQueueSize();
  /// Walks one folder tree on the calling thread. Folders of the list within it are walked
  /// with their own settings.
  int scanFolder(KxTransFileSetting setting);
  /// The same; @p stopped is asked before each entry and ends the walk.
  /// @param followsList the target is the one that the list has, also when that changes meanwhile
  int scanFolder(const KxTransFileSetting& setting, const std::function<bool()>& stopped,
                 bool followsList = false);

 private:
  KxTransFileScanner();
  ~KxTransFileScanner();
  static void* run(void* self);
  void runImpl();
  void runTask(const KxTransFileScanTask& task);
  void scanAll();
  void setRunning(bool running);
  int pushTask(KxTransFileScanTask* task);

  KxTransFileConfig* m_config;
  bool m_running;  // under m_statusLock
  pthread_rwlock_t m_statusLock;
  sem_t m_wakeUp;
  pthread_t m_thread;
  pthread_mutex_t m_mutex;  // one start or stop at a time
  KxTransFileScanQueue m_queue;
};
