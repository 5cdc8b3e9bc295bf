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
/// unconfined.
class AmpCgroup {
 public:
  AmpCgroup();
  ~AmpCgroup();
  AmpCgroup(const AmpCgroup&) = delete;
  AmpCgroup& operator=(const AmpCgroup&) = delete;

  /// Redirects /sys/fs/cgroup, for tests. Set before construction.
  static void setMountRoot(const std::string& root);

  int ampCpuInit(std::string name, int percent);
  int setCpuLimiting(int percent);
  int getCpuLimiting();
  int ampMemInit(std::string name, int limitKb);
  int setMemLimiting(int limitKb);
  int getMemLimiting();
  void addProcessInCgroup(int pid);
  void addThreadSelfInCgroup();
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
