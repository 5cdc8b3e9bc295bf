#include "AmpCgroup.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

#include "KxHostPlatform.h"
#include "frame/ChildSetup.h"
#include "resources/CgroupFiles.h"
#include "resources/CgroupLimits.h"
#include "resources/UnifiedCgroup.h"

namespace {

using cgroupfiles::write;
using cgroupfiles::writeOrReport;

constexpr const char* kMountRoot = "/sys/fs/cgroup";

std::string& mountRoot() {
  static std::string root = kMountRoot;
  return root;
}

}  // namespace

AmpCgroup::ThreadLock::ThreadLock(pthread_mutex_t& mutex) : m_mutex(mutex) {
  pthread_mutex_lock(&m_mutex);
}

AmpCgroup::ThreadLock::~ThreadLock() {
  pthread_mutex_unlock(&m_mutex);
}

void AmpCgroup::setMountRoot(const std::string& root) {
  mountRoot() = root.empty() ? kMountRoot : root;
}

AmpCgroup::AmpCgroup()
    : m_mutex{}, m_cpuReady(false), m_memReady(false), m_totalMem(MyUtil_GetTotalMem()),
      m_memLimit(0), m_cpuPeriod(cgrouplimits::kPeriodUs), m_cpuQuota(cgrouplimits::kPeriodUs),
      m_cpuCount(1), m_isUnified(UnifiedCgroup::isMountedAt(mountRoot())) {
  pthread_mutex_init(&m_mutex, nullptr);
  m_cpuCount = MyUtil_GetCpuNum();
}

AmpCgroup::~AmpCgroup() {
  pthread_mutex_destroy(&m_mutex);
}

void AmpCgroup::nameCpuFiles(const std::string& name) {
  if (m_isUnified) {
    const UnifiedCgroup group(mountRoot(), name);
    m_cpuFolder = group.folder();
    m_cpuQuotaFile = group.cpuLimitFile();
    m_cpuProcsFile = group.procsFile();
    return;
  }
  m_cpuFolder = mountRoot() + "/cpu/" + name;
  m_cpuPeriodFile = m_cpuFolder + "/cpu.cfs_period_us";
  m_cpuQuotaFile = m_cpuFolder + "/cpu.cfs_quota_us";
  m_cpuProcsFile = m_cpuFolder + "/cgroup.procs";
  m_cpuTasksFile = m_cpuFolder + "/tasks";
}

void AmpCgroup::nameMemFiles(const std::string& name) {
  if (m_isUnified) {
    const UnifiedCgroup group(mountRoot(), name);
    m_memFolder = group.folder();
    m_memLimitFile = group.memLimitFile();
    m_memProcsFile = group.procsFile();
    return;
  }
  m_memFolder = mountRoot() + "/memory/" + name;
  m_memLimitFile = m_memFolder + "/memory.limit_in_bytes";
  m_memProcsFile = m_memFolder + "/cgroup.procs";
  m_memTasksFile = m_memFolder + "/tasks";
}

// The unified hierarchy takes the period together with the quota; there the controller has to
// be enabled instead.
bool AmpCgroup::openCpuControllerLocked(const std::string& name) {
  if (!m_isUnified) return writeOrReport(m_cpuPeriodFile, std::to_string(m_cpuPeriod));
  UnifiedCgroup(mountRoot(), name).enable("cpu");
  return true;
}

int AmpCgroup::ampCpuInit(std::string name, int percent) {
  if (name.empty()) return -1;
  const ThreadLock lock(m_mutex);
  nameCpuFiles(name);
  if (!cgroupfiles::makeFolder(m_cpuFolder) && !m_cpuReady) return -1;
  m_cpuReady = openCpuControllerLocked(name);
  return setCpuLimitingLocked(percent);
}

int AmpCgroup::setCpuLimiting(int percent) {
  const ThreadLock lock(m_mutex);
  return setCpuLimitingLocked(percent);
}

int AmpCgroup::setCpuLimitingLocked(int percent) {
  if (!m_cpuReady) return -1;
  m_cpuQuota = static_cast<int32_t>(cgrouplimits::quotaFor(m_cpuCount, percent));
  const bool limited = percent < 100;
  const std::string quota = std::to_string(m_cpuQuota);
  const std::string text = m_isUnified
                               ? (limited ? quota : "max") + " " + std::to_string(m_cpuPeriod)
                               : (limited ? quota : "-1");
  return writeOrReport(m_cpuQuotaFile, text) ? 0 : -1;
}

int AmpCgroup::getCpuLimiting() {
  const ThreadLock lock(m_mutex);
  if (!m_cpuReady) return -1;
  return cgrouplimits::percentOf(m_cpuQuota, m_cpuPeriod, m_cpuCount);
}

int AmpCgroup::ampMemInit(std::string name, int limitKb) {
  if (name.empty()) return -1;
  const ThreadLock lock(m_mutex);
  nameMemFiles(name);
  if (!cgroupfiles::makeFolder(m_memFolder) && !m_memReady) return -1;
  m_memReady = true;
  if (m_isUnified) UnifiedCgroup(mountRoot(), name).enable("memory");
  setMemLimitingLocked(limitKb < 0 ? cgrouplimits::automaticMemLimit(m_totalMem) : limitKb);
  return 0;
}

int AmpCgroup::setMemLimiting(int limitKb) {
  const ThreadLock lock(m_mutex);
  return setMemLimitingLocked(limitKb);
}

int AmpCgroup::setMemLimitingLocked(int limitKb) {
  if (!m_memReady || limitKb >= m_totalMem) return -1;
  m_memLimit = limitKb;
  printf(" size:%d\n", m_memLimit);
  const bool limited = limitKb != -1;
  if (!limited) m_memLimit = m_totalMem;
  const std::string text =
      limited ? std::to_string(limitKb) + "k" : std::string(m_isUnified ? "max" : "-1");
  return writeOrReport(m_memLimitFile, text) ? 0 : -1;
}

int AmpCgroup::getMemLimiting() {
  const ThreadLock lock(m_mutex);
  return m_memLimit;
}

void AmpCgroup::addProcessInCgroup(int pid) {
  const ThreadLock lock(m_mutex);
  const std::string text = std::to_string(pid);
  if (m_cpuReady) write(m_cpuProcsFile, text);
  const bool alreadyThere = m_cpuReady && m_memProcsFile == m_cpuProcsFile;
  if (m_memReady && !alreadyThere) write(m_memProcsFile, text);
}

void AmpCgroup::addThreadSelfInCgroup() {
  if (m_isUnified) return;
  const ThreadLock lock(m_mutex);
  const std::string text = std::to_string(syscall(SYS_gettid));
  if (m_cpuReady) write(m_cpuTasksFile, text);
  if (m_memReady) write(m_memTasksFile, text);
}

int AmpCgroup::forkExecInCgroup(const char* cmdline) {
  const childsetup::AllSignalsBlocked blocked;
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid > 0) {
    addProcessInCgroup(pid);
    return 0;
  }
  childsetup::resetSignals();
  cgrouplimits::CommandWords words(cmdline);
  if (!words.empty()) execvp(words.argv()[0], words.argv());
  _exit(127);
}
