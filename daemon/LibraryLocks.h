#pragma once

#include "KxResMgr2.h"
#include "KxTransDBMgr.h"

namespace xcoded {

// The lock of the resource manager for the length of a scope. Take it before the job
// store's, never after.
class ManagerLock {
 public:
  ManagerLock() { KxResMgr2::getInstance()->mutexLock(); }
  ~ManagerLock() { KxResMgr2::getInstance()->mutexUnLock(); }
  ManagerLock(const ManagerLock&) = delete;
  ManagerLock& operator=(const ManagerLock&) = delete;
};

// The lock of the job store for the length of a scope.
class StoreLock {
 public:
  StoreLock() { KxTransDBMgr::getInstance()->mutexLock(); }
  ~StoreLock() { KxTransDBMgr::getInstance()->mutexUnLock(); }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
};

}  // namespace xcoded
