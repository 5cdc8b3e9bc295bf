#include "watch/FileNotice.h"

#include <dirent.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <filesystem>

#include "KxHostPlatform.h"
#include "KxTransFileMonitor.h"
#include "watch/FolderLookup.h"

namespace {

constexpr int kVideoClass = 2;
constexpr int kExtensionSize = 6;

std::atomic<const KxWatchListener*> gListener{nullptr};

void tellLeaving(const std::string& path) {
  const KxWatchListener* listener = gListener;
  if (listener != nullptr && listener->leaving != nullptr)
    listener->leaving(listener->context, path);
}

// Every job of a file or folder, whatever its state and whoever asked for it.
KxDBTaskParam everyJobOf(const std::string& path) {
  KxDBTaskParam every;
  every.src = path;
  every.status = -1;
  every.insertType = -1;
  return every;
}

bool isGone(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace

bool hasEntries(const std::string& folder) {
  std::error_code error;
  const bool isEmpty = std::filesystem::is_empty(folder, error);
  return !error && !isEmpty;
}

void KxTransFileMonitor::setListener(const KxWatchListener* listener) {
  gListener = listener;
}

void tellQueued() {
  const KxWatchListener* listener = gListener;
  if (listener != nullptr && listener->queued != nullptr) listener->queued(listener->context);
}

bool isVideoName(const std::string& name) {
  char extension[kExtensionSize] = {};
  return MyIDB_GetFilenameType(name.c_str(), extension, kVideoClass, sizeof extension) ==
         kVideoClass;
}

int queueWatchedFile(const std::string& path, long long target) {
  KxDBTaskParam job;
  job.src = path;
  job.jobFlag = static_cast<uint64_t>(target);
  return KxTransDBMgr::getInstance()->addDBJob(job);
}

bool mayBeQueuedLater(long long target) {
  return target != 0;
}

void forgetFile(const KxDBMgrFileParam& file) {
  const std::string path = file.fullpath + file.filename;
  tellLeaving(path);
  withStore([&] {
    KxTransDBMgr* store = KxTransDBMgr::getInstance();
    store->deleteDBJobByFilename(everyJobOf(path));
    return store->deleteDBFile(file);
  });
}

int forgetFolder(const std::string& folder, const std::function<int()>& last) {
  const std::string prefix = FolderLookup::normalised(folder);
  tellLeaving(prefix);
  return withStore([&] {
    KxTransDBMgr* store = KxTransDBMgr::getInstance();
    store->deleteDBJobByDirname(everyJobOf(prefix));
    const int result = store->deleteDBFolder(KxDBMgrFileParam("", prefix, 0, 0));
    return last ? last() : result;
  });
}

void forgetVanished(const std::string& root) {
  if (!hasEntries(root)) return;
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  const auto folders =
      withStore([&] { return store->getDBFolders(FolderLookup::normalised(root)); });
  for (const std::string& folder : folders) {
    if (isGone(folder)) {
      forgetFolder(folder);
      continue;
    }
    const auto files = withStore([&] { return store->getDBFiles(folder); });
    for (const KxDBMgrFileParam& file : files)
      if (isGone(folder + file.filename)) forgetFile(file);
  }
}
