#include "daemon/UnitControl.h"

#include <algorithm>

#include "daemon/LibraryLocks.h"
#include "frame/Log.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";

std::vector<KxDBTaskParam> unitJobsLocked() {
  std::vector<KxDBTaskParam> jobs;
  for (const KxTranscodeUnit2& unit : KxResMgr2::getInstance()->getUnitVec())
    jobs.push_back(unit.getTask().param);
  return jobs;
}

bool hasUnit(const std::vector<KxDBTaskParam>& units, int64_t jobId) {
  return std::any_of(units.begin(), units.end(),
                     [&](const KxDBTaskParam& job) { return job.id == jobId; });
}

// The row is read and marked in one section of the store's lock: until it is marked, another
// request for the same file may still add its profiles to it.
KxDBTask markRunning(int64_t jobId) {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  StoreLock lock;
  const std::vector<KxDBTask> rows = store->getDBJobById(jobId);
  if (rows.empty() || rows.front().param.status != JOB_WAITING) return KxDBTask();
  KxDBTask task = rows.front();
  task.param.status = JOB_RUNNING;
  if (store->updateDBJobStatus(task.param) != 0) return KxDBTask();
  return task;
}

void markWaiting(KxDBTaskParam job) {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  job.status = JOB_WAITING;
  job.dateStart = 0;
  job.dateFinish = 0;
  store->updateDBJobDateStart(job);
  store->updateDBJobDateFinish(job);
  store->updateDBJobStatus(job);
}

}  // namespace

std::vector<KxDBTaskParam> unitJobs() {
  ManagerLock lock;
  return unitJobsLocked();
}

bool startUnit(int64_t jobId, const std::function<bool()>& isRunning) {
  KxResMgr2* manager = KxResMgr2::getInstance();
  ManagerLock lock;
  // Stop and pause change the state under this lock, so no unit slips in behind them.
  if (!isRunning() || hasUnit(unitJobsLocked(), jobId)) return false;
  KxDBTask task = markRunning(jobId);
  if (task.isEmpty) return false;
  if (manager->createUnit(task) == 0) return manager->unitStart(task) == 0;
  KX_LOG_LEVEL(2, "no unit for job %lld\n", static_cast<long long>(jobId));
  StoreLock store;
  markWaiting(task.param);
  return false;
}

void stopUnits(const JobFilter& matches) {
  ManagerLock lock;
  for (const KxDBTaskParam& job : unitJobsLocked())
    if (matches(job)) KxResMgr2::getInstance()->unitStop(job.id);
}

void stopAllUnits() {
  ManagerLock lock;
  KxResMgr2::getInstance()->stopAllUnit();
}

void reapUnits() {
  ManagerLock lock;
  KxResMgr2::getInstance()->checkUnit();
}

void requeueOrphans() {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  ManagerLock manager;
  const std::vector<KxDBTaskParam> units = unitJobsLocked();
  StoreLock lock;
  const KxDBGetJobParam running(1UL << JOB_RUNNING, 1000, "Id", 0, true, -1, 0);
  for (const KxDBTask& task : store->getDBJob(running)) {
    if (hasUnit(units, task.param.id)) continue;
    KX_LOG_LEVEL(3, "job %lld is marked as running but nothing runs it, it waits again\n",
                 static_cast<long long>(task.param.id));
    markWaiting(task.param);
  }
}

void checkRegistrations() {
  ManagerLock lock;
  KxResMgr2::getInstance()->checkRegInfo();
}

void resumeUnits(const std::function<bool()>& stillPaused, const std::function<void()>& resumed) {
  ManagerLock lock;
  if (!stillPaused()) return;
  resumed();
  KxResMgr2::getInstance()->startAllUnit();
}

int countHardwareResources() {
  int count = 0;
  for (const KxResource2& resource : KxResMgr2::getInstance()->getResVec())
    if (resource.resType >= RES2_GPU_INTERNAL && resource.resType <= RES2_ARM_RK) ++count;
  return count;
}

}  // namespace xcoded
