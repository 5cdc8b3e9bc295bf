#pragma once

#include <condition_variable>
#include <mutex>

#include "frame/ThreadSafety.h"

namespace xcoded {

// A mutex that the compiler's lock analysis knows.
class KX_CAPABILITY("mutex") Mutex {
 public:
  void lock() KX_ACQUIRE() { m_mutex.lock(); }
  void unlock() KX_RELEASE() { m_mutex.unlock(); }

 private:
  std::mutex m_mutex;
};

// Holds a Mutex for the length of a scope.
class KX_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) KX_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~MutexLock() KX_RELEASE() { m_mutex.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& m_mutex;
};

// Waits with a Mutex: cv.wait(mutex), cv.wait_until(mutex, time).
using Condition = std::condition_variable_any;

}  // namespace xcoded
