#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "KxHostPlatform.h"

// The processors of the machine, whatever this process may use of them: the limits that are
// computed from the number hold for the whole machine.
int MyUtil_GetCpuNum(void) {
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  return static_cast<int>(std::clamp<long>(online, 1, INT_MAX));
}

int MyUtil_GetTotalMem(void) {
  struct sysinfo info = {};
  if (sysinfo(&info) != 0) return 0;
  const unsigned long long bytes =
      static_cast<unsigned long long>(info.totalram) * std::max(info.mem_unit, 1U);
  return static_cast<int>(std::min<unsigned long long>(bytes / 1024, INT_MAX));
}

long long myatoll(const char* s) {
  if (s == nullptr) return 0;
  const int savedErrno = errno;
  const long long value = strtoll(s, nullptr, 10);
  errno = savedErrno;
  return value;
}

namespace MediaLibrary {

ScopedMutexLock::ScopedMutexLock(pthread_mutex_t& mutex) : m_mutex(mutex) {
  pthread_mutex_lock(&m_mutex);
}

ScopedMutexLock::~ScopedMutexLock() {
  pthread_mutex_unlock(&m_mutex);
}

}  // namespace MediaLibrary
