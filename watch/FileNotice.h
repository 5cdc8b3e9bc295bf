#pragma once

#include <functional>
#include <string>

#include "KxTransDBMgr.h"
#include "KxTransFileConfig.h"

// What scanner and notification agent share about files and the job store.

// Calls `operation` under the job store's lock, and only for its length: no walk of the file
// system belongs inside.
template <typename Operation>
auto withStore(Operation operation) {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  store->mutexLock();
  auto result = operation();
  store->mutexUnLock();
  return result;
}

// True for the name of a video, the only kind that is watched.
bool isVideoName(const std::string& name);

// Adds the job of a watched file. Call it under the job store's lock. 0 on success.
int queueWatchedFile(const std::string& path, long long target);

// True when a job that could not be queued is worth another try: its target asks for something.
bool mayBeQueuedLater(long long target);

// Deletes the jobs of a file, in whatever state, and its record.
void forgetFile(const KxDBMgrFileParam& file);
// The same for everything below a folder. @p last runs in the same section of the store's lock.
// @return what it returned
int forgetFolder(const std::string& folder, const std::function<int()>& last = {});
// False also for a folder that is not there.
bool hasEntries(const std::string& folder);
// Forgets recorded files below a watched folder that are not there any more. Does nothing while
// the folder itself is missing or empty: its volume may not be mounted.
void forgetVanished(const std::string& root);

// Tells the host, see KxWatchListener.
void tellQueued();
