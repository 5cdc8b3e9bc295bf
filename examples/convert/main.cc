// Turns one video into a mobile240p file with the library alone, without the daemon: the
// shortest whole road of a job. The program that loads the library supplies what
// KxHostPlatform.h declares; here the installed host layer does.
//
//   convert DATABASE VIDEO [ROOT]     ROOT: folder that holds the service's fixed paths

#include <cstdio>
#include <future>
#include <string>

#include <KxResMgr2.h>
#include <KxTransDBMgr.h>
#include <Misc.h>
#include <host/HostLog.h>

namespace {

constexpr uint64_t kMobile240p = 1;  // bit of the first row of the profile table

KxTransDBMgr* store() {
  return KxTransDBMgr::getInstance();
}

KxResMgr2* manager() {
  return KxResMgr2::getInstance();
}

// Puts the file into the queue. The job is empty when that fails.
KxDBTask enqueue(const std::string& video) {
  KxDBTaskParam request;
  request.src = video;
  request.jobFlag = kMobile240p;
  KxDBTask job;
  store()->mutexLock();
  if (store()->addDBJob(request) == 0) job = store()->getDBJobBySource(video).back();
  store()->mutexUnLock();
  return job;
}

// Gives the job a unit and waits until its runner has left.
bool run(KxDBTask& job) {
  std::promise<void> left;
  KxTranscodeUnit2::setLeaveListener(
      [](void* context) { static_cast<std::promise<void>*>(context)->set_value(); }, &left);
  manager()->mutexLock();
  const bool isStarted = manager()->createUnit(job) == 0 && manager()->unitStart(job) == 0;
  manager()->mutexUnLock();
  if (isStarted) left.get_future().wait();
  KxTranscodeUnit2::setLeaveListener(nullptr, nullptr);
  manager()->mutexLock();
  manager()->checkUnit();
  manager()->mutexUnLock();
  return isStarted;
}

int report(int64_t id) {
  store()->mutexLock();
  const KxDBTaskParam job = store()->getDBJobById(id).back().param;
  const std::string reason = store()->getDBJobReason(id);
  store()->mutexUnLock();
  if (job.status == JOB_DONE) {
    printf("done\n");
    return 0;
  }
  fprintf(stderr, "failed: %s\n", reason.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: convert DATABASE VIDEO [ROOT]\n");
    return 2;
  }
  if (argc > 3) miscSetSystemRoot(argv[3]);
  kxhost::LogSettings log;
  log.level = 2;
  kxhost::configureLog(log);
  if (store()->init(argv[1]) != 0) {
    fprintf(stderr, "the queue %s cannot be opened\n", argv[1]);
    return 1;
  }
  // A machine without control groups still has its resources, and works without limits.
  manager()->init("convert");
  KxDBTask job = enqueue(argv[2]);
  if (job.isEmpty || !run(job)) {
    fprintf(stderr, "%s cannot be queued\n", argv[2]);
    return 1;
  }
  return report(job.param.id);
}
