#include "resources/JobRecord.h"

#include <ctime>

#include "KxTransDBMgr.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

// Holds the job store's lock. A failure is logged and the work goes on.
class StoreLock {
 public:
  StoreLock() {
    if (KxTransDBMgr::getInstance()->mutexLock() != 0) KX_RUNNER_LOG("DBMgr mutex lock fail\n");
  }
  ~StoreLock() {
    if (KxTransDBMgr::getInstance()->mutexUnLock() != 0) KX_RUNNER_LOG("DBMgr mutex unlock fail\n");
  }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
};

void writeRow(const KxDBTaskParam& row) {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  if (store->updateDBJobDateStart(row) != 0) KX_RUNNER_LOG("update job dateStart fail\n");
  if (store->updateDBJobDateFinish(row) != 0) KX_RUNNER_LOG("updateDBJobDateFinish fail\n");
  if (store->updateDBJobStatus(row) != 0) KX_RUNNER_LOG("updateDBJobStatus fail\n");
}

// A row that was deleted while its job ran leaves its id to the next job.
bool isReplaced(const KxDBTaskParam& job) {
  const std::vector<KxDBTask> rows = KxTransDBMgr::getInstance()->getDBJobById(job.id);
  if (rows.empty()) return false;
  const KxDBTaskParam& row = rows.front().param;
  return row.src != job.src || row.dateAdd != job.dateAdd;
}

KxDBTaskParam outcome(const JobRun& run, bool stopped, bool succeeded) {
  KxDBTaskParam row = run.job();
  row.dateStart = stopped ? 0 : run.startTime();
  row.dateFinish = stopped ? 0 : time(nullptr);
  row.status = JOB_WAITING;
  if (!stopped) row.status = succeeded ? JOB_DONE : JOB_ERROR;
  return row;
}

}  // namespace

void keepReason(const JobRun& run, const std::string& reason) {
  const StoreLock lock;
  KxTransDBMgr::getInstance()->updateDBJobReason(run.job().id, oneLine(reason));
}

void forgetReason(const JobRun& run) {
  const StoreLock lock;
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  if (!store->getDBJobReason(run.job().id).empty()) store->updateDBJobReason(run.job().id, "");
}

void writeOutcome(const JobRun& run, KxUnitState_e state, bool succeeded) {
  if (state == UNIT_PENDING) {
    KX_RUNNER_LOG(
        "KxTranscodeUnit status has been set as pending, in order to keep the DB record for UI "
        "query, we do not update DB. The KxTranscodeUnit will be reinvoked when status set to "
        "start.The KxTranscodeUnit will update DB when status set to stop.\n");
    return;
  }
  const bool stopped = state == UNIT_STOP;
  const KxDBTaskParam row = outcome(run, stopped, succeeded);
  const std::string reason = row.status == JOB_ERROR  ? run.reason()
                             : row.status == JOB_DONE ? run.remarks()
                                                      : "";
  const StoreLock lock;
  if (isReplaced(run.job())) return;
  writeRow(row);
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  if (store->getDBJobReason(row.id) != reason) store->updateDBJobReason(row.id, reason);
}

}  // namespace runner
