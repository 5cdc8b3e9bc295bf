#include "daemon/WatchedJobs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "KxTransFileMonitor.h"
#include "daemon/LibraryLocks.h"
#include "daemon/UnitControl.h"
#include "frame/Log.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";

KxTransDBMgr* store() {
  return KxTransDBMgr::getInstance();
}

bool isWatched(const KxDBTaskParam& job) {
  return job.insertType == INSERT_WATCHER;
}

// The waiting row of a watched source as it is now; empty when there is none.
KxDBTask rowFor(const KxDBTaskParam& job, int64_t size) {
  for (const KxDBTask& task : store()->getDBJobBySource(job.src)) {
    const KxDBTaskParam& row = task.param;
    if (row.id != job.id && row.status == JOB_WAITING && isWatched(row) && row.fileSize == size)
      return task;
  }
  return {};
}

// Puts a row for the source as it is now in the place of one that was queued for an earlier
// state of it. Several of them, one for each time that a writer closed the file, become one.
bool renew(const KxDBTaskParam& job, int64_t size) {
  StoreLock lock;
  const std::vector<KxDBTask> rows = store()->getDBJobById(job.id);
  if (rows.empty() || rows.front().param.status != JOB_WAITING) return false;
  // It adds its profiles to the right row when there is one.
  if (store()->addDBJob(rows.front().param) != 0) return false;
  KxDBTask right = rowFor(job, size);
  if (right.isEmpty) return false;
  store()->deleteDBJobById(job);
  // Deleting took the media library's mark of the source away.
  store()->updateDBJobStatus(right.param);
  KX_LOG("job %lld of %s was queued for an earlier state of it, job %lld stands for it now\n",
         static_cast<long long>(job.id), job.src.c_str(), static_cast<long long>(right.param.id));
  return true;
}

// A copy that keeps times sets them after it has closed the file, which no event tells. What is
// complete is recorded as it is, so that the next scan knows it; a file that must be looked at
// again stays so.
void recordTime(const std::string& path, int64_t seconds) {
  const size_t name = path.rfind('/') + 1;
  const KxDBMgrFileParam file(path.substr(name), path.substr(0, name), seconds, 0);
  StoreLock lock;
  const long long stored = store()->getModifiedTime(file);
  if (stored > 1 && stored != seconds && seconds > 1) store()->updateDBFile(file);
}

}  // namespace

WatchedJobs::Judgement WatchedJobs::judge(const KxDBTaskParam& job,
                                          const std::vector<KxDBTaskParam>& units) {
  constexpr Judgement kStart{Verdict::Start};
  if (!isWatched(job)) return kStart;
  if (!m_settle.isComplete(job.src)) return {Verdict::Wait, "its source to be complete"};
  struct stat info {};
  if (stat(job.src.c_str(), &info) != 0) {
    // A volume that is not mounted brings its files back; what is gone for good fails by itself.
    const bool isGone = errno == ENOENT || errno == ENOTDIR;
    const bool mayReturn = isGone && KxTransFileMonitor::getInstance()->isAway(job.src);
    if (!mayReturn) return kStart;
    return {Verdict::Wait, "the volume of its source, which is not mounted"};
  }
  if (!S_ISREG(info.st_mode)) return kStart;
  const auto running = std::find_if(units.begin(), units.end(), [&](const KxDBTaskParam& unit) {
    return unit.src == job.src && unit.id != job.id;
  });
  if (running != units.end()) {
    // It works on a state of the source that is gone, so its result would not count.
    if (isWatched(*running) && running->fileSize != info.st_size)
      stopUnits([id = running->id](const KxDBTaskParam& unit) { return unit.id == id; });
    return {Verdict::Wait, "another job of its source to end"};
  }
  if (job.fileSize != info.st_size && renew(job, info.st_size)) return {Verdict::Renewed};
  recordTime(job.src, info.st_mtime);
  return kStart;
}

}  // namespace xcoded
