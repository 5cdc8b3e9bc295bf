#pragma once
/// @file
/// The one door through which the server reaches folder watching.

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include "KxTransFileConfig.h"

/// How well one watched folder is watched.
enum KxWatchState_e : int {
  WATCH_OFF = 0,      ///< not watched: the notification agent does not run, or has yet to come
  WATCH_ON = 1,       ///< the folder and everything below it is watched
  WATCH_PARTIAL = 2,  ///< the kernel's limit of watches is reached: only a part is watched
  WATCH_MISSING = 3,  ///< the folder is not there; it is watched again when it returns
  WATCH_FAILED = 4,   ///< the folder cannot be watched, see KxWatchedFolder::error
};

/// One watched folder and its state. A plain value.
struct KxWatchedFolder {
  KxTransFileSetting setting;
  KxWatchState_e state = WATCH_OFF;
  int error = 0;  ///< errno of WATCH_PARTIAL, WATCH_MISSING and WATCH_FAILED
};

/// State of folder watching. A plain value.
struct KxWatchStatus {
  bool isScannerRunning = false;
  bool isNotifyRunning = false;
  std::string scanning;                  ///< folder that is being walked; empty: none
  int queuedScans = 0;                   ///< tasks that wait for the scanner
  int64_t lostEvents = 0;                ///< times that the kernel's event queue overflowed
  int64_t lastLost = 0;                  ///< when it last did, seconds since the epoch; 0: never
  bool needsScan = false;                ///< events were lost and no full scan has ended since
  std::vector<KxWatchedFolder> folders;  ///< ascending by path
};

/// What folder watching tells a host. The functions are called on its threads and on those of
/// folder requests, without the locks of the job store and of the resource manager; they must
/// not call KxTransFileMonitor, whose mutex may be held.
struct KxWatchListener {
  void* context = nullptr;
  /// A job was queued.
  void (*queued)(void* context) = nullptr;
  /// The jobs of a file, or of everything below a folder (with a final "/"), are about to be
  /// forgotten: what works on them should stop.
  void (*leaving)(void* context, const std::string& path) = nullptr;
};

/// Process-wide facade over the folder file, the scanner and the notification agent.
///
/// A mutex serialises changes of the folder list against each other and against its readers;
/// it is never held across a scan, a start or a stop. Any thread may call any operation that
/// is not init() or uninit(). Lock order: this mutex, the job store, the configuration.
/// Results are 0 on success and 1 on failure unless said otherwise.
class KxTransFileMonitor {
 public:
  static KxTransFileMonitor* getInstance();
  KxTransFileMonitor(const KxTransFileMonitor&) = delete;
  KxTransFileMonitor& operator=(const KxTransFileMonitor&) = delete;

  /// Ends helper processes of an earlier run and loads the folder file; starts nothing. Needs
  /// the job store. Call it once, before anything else.
  /// @param clientId passed on to the notification agent
  int init(int clientId, KxTransFileInit_s paths);
  /// Call it when everything has been stopped.
  int uninit();
  /// @return 1 when it runs already
  int startScanner();
  /// Watches all folders and walks them before it returns, so it may take long.
  /// @return 1 when it runs already
  int startNotify();
  /// Scanner, then agent. @return 1 when one of them could not be started
  int startAll();
  /// Scanner, then agent; also ends a startAll() that is under way on another thread.
  int stopAll();
  /// Waits for the scan in progress, which ends early, as do the walks of an agent that starts.
  int stopScanner();
  int stopNotify();
  int getFolderSize();
  /// @param index place in the ascending order of paths, from 0
  int getFolder(unsigned int index, KxTransFileSetting& setting);
  /// True when the folder itself is in the list.
  bool hasFolder(const std::string& path);
  /// Watches a folder: it must be a real directory that is not in the list. It is scanned at
  /// once; the scanner is started when it is stopped.
  int addFolder(std::string path, std::string target);
  /// Gives a folder of the list another target and queues the files directly in it again.
  int updateFolder(std::string path, std::string target);
  /// Queues a scan of a folder, in the list or not, with a target.
  int buildFolder(std::string path, std::string target);
  /// Queues a scan of all folders; folders that are not completely watched are tried again.
  int buildAllFolder();
  /// Drops the scans that wait; one in progress goes on.
  int stopBuildAll();
  /// Takes a folder out of the list with its jobs, in whatever state, its records and its
  /// watches. Stop the units of its jobs first.
  int delFolder(std::string path);

  /// True when the watched folder that contains a path is missing or empty, as it is while its
  /// volume is not mounted. Files below it may come back as they were.
  bool isAway(const std::string& path);

  /// State of folder watching and of every folder.
  KxWatchStatus getWatchStatus();
  /// @param listener stays the caller's, and unchanged until another is set; NULL for none
  static void setListener(const KxWatchListener* listener);

 private:
  KxTransFileMonitor();
  ~KxTransFileMonitor();
  int killPreviousKxmonitor();
  void rescanAround(const std::string& path);

  pthread_mutex_t m_mutex;
  KxTransFileConfig m_config;
};
