#pragma once
/// @file
/// CPU and memory limits of all transcoding work, through one Linux control group.

#include <pthread.h>

#include <cstdint>
#include <string>

/// Confines threads and child processes to one named control group.
///
/// Every write takes the object's own mutex, so limit changes and additions may run at the
/// same time. A controller that could not be set up is skipped: the service then runs
/// unconfined. Failures are reported by return value (-1) and on standard error, not in the
/// service log.
class AmpCgroup {
 public:
  /// Reads the facts of the machine; makes and writes nothing.
  AmpCgroup();
  ~AmpCgroup();
  AmpCgroup(const AmpCgroup&) = delete;
  AmpCgroup& operator=(const AmpCgroup&) = delete;

  /// Redirects /sys/fs/cgroup, for tests; empty restores it. Set before construction.
  static void setMountRoot(const std::string& root);

  /// Makes the group for the cpu controller and sets its limit.
  /// @param name group, a path below the controller's folder; empty fails
  /// @param percent as for setCpuLimiting()
  /// @return 0 on success, -1 on failure
  int ampCpuInit(std::string name, int percent);
  /// Limits the processor time.
  /// @param percent share of all processors: below 1 counts as 1, 100 and above is no limit
  /// @return 0 on success, -1 when the controller is not set up or its file does not open
  int setCpuLimiting(int percent);
  /// @return the limit as a percentage of all processors, truncated (some values come back one
  ///         lower), 100 without a limit; -1 when the controller is not set up.
  int getCpuLimiting();
  /// Makes the group for the memory controller and sets its limit.
  /// @param name group, a path below the controller's folder; empty fails
  /// @param limitKb kilobytes; negative: a ceiling chosen from the machine's memory
  /// @return 0 once the group exists, whether or not the limit could be set; else -1
  int ampMemInit(std::string name, int limitKb);
  /// Limits the memory.
  /// @param limitKb kilobytes, below the machine's memory; -1: no limit
  /// @return 0 on success, -1 when the controller is not set up, the limit is too high or its
  ///         file does not open
  int setMemLimiting(int limitKb);
  /// @return the last limit in kilobytes; the machine's memory when there is none.
  int getMemLimiting();
  /// Puts a process with all its threads into the group. Failures are ignored.
  void addProcessInCgroup(int pid);
  /// Puts the calling thread alone into the group. Failures are ignored. Writes nothing where
  /// isUnified().
  void addThreadSelfInCgroup();
  /// Starts a command in the group and does not wait for it; reaping is the caller's business.
  /// @param cmdline at most 1,023 bytes are used. Words are parted by blanks; a word in single
  ///        or double quotes may hold blanks. The first word is searched on the PATH; a child
  ///        that cannot run it exits with 127.
  /// @return 0, or -1 when the process could not be forked
  int forkExecInCgroup(const char* cmdline);

  /// True when the host has only the unified hierarchy: children are then added one by one
  /// with addProcessInCgroup(), because single threads cannot be placed there.
  bool isUnified() const { return m_isUnified; }

 private:
  class ThreadLock {
   public:
    explicit ThreadLock(pthread_mutex_t& mutex);
    ~ThreadLock();
    ThreadLock(const ThreadLock&) = delete;
    ThreadLock& operator=(const ThreadLock&) = delete;

   private:
    pthread_mutex_t& m_mutex;
  };

  void nameCpuFiles(const std::string& name);
  void nameMemFiles(const std::string& name);
  bool openCpuControllerLocked(const std::string& name);
  int setCpuLimitingLocked(int percent);
  int setMemLimitingLocked(int limitKb);

  std::string m_cpuFolder, m_cpuPeriodFile, m_cpuQuotaFile, m_cpuProcsFile, m_cpuTasksFile;
  std::string m_memFolder, m_memLimitFile, m_memProcsFile, m_memTasksFile;
  pthread_mutex_t m_mutex;
  bool m_cpuReady;
  bool m_memReady;
  int32_t m_totalMem;   ///< kilobytes
  int32_t m_memLimit;   ///< kilobytes
  int32_t m_cpuPeriod;  ///< microseconds
  int32_t m_cpuQuota;   ///< microseconds
  int32_t m_cpuCount;
  bool m_isUnified;
};
