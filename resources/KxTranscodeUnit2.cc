#include "KxTranscodeUnit2.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <map>
#include <mutex>

#include "KxTransDBMgr.h"
#include "Misc.h"
#include "frame/Log.h"
#include "frame/UniqueFd.h"
#include "resources/UnitState.h"
#include "resources/UnitThread.h"

static constexpr const char* kLogSource = "KxTranscodeUnit2";

namespace {

std::atomic<UnitThreadRoutine> gThreadRoutine{unitBGTranscodeThread};

constexpr auto kNoThread = static_cast<pthread_t>(-1);

struct {
  std::mutex mutex;
  KxTranscodeUnit2::LeaveListener listener = nullptr;
  void* context = nullptr;
} gLeave;

void tellLeft() {
  const std::lock_guard<std::mutex> lock(gLeave.mutex);
  if (gLeave.listener != nullptr) gLeave.listener(gLeave.context);
}

template <class Body>
int withMutex(pthread_mutex_t& mutex, const char* function, Body body) {
  if (miscMutexLock(mutex) != 0) {
    KX_LOG_AS(function, "mutex lock fail\n");
    return 1;
  }
  const int result = body();
  if (miscMutexUnLock(mutex) != 0) {
    KX_LOG_AS(function, "mutex unlock fail\n");
    return 1;
  }
  return result;
}

class UnitLock {
 public:
  explicit UnitLock(pthread_mutex_t& mutex) : m_mutex(mutex) { miscMutexLock(m_mutex); }
  ~UnitLock() { miscMutexUnLock(m_mutex); }
  UnitLock(const UnitLock&) = delete;
  UnitLock& operator=(const UnitLock&) = delete;

 private:
  pthread_mutex_t& m_mutex;
};

timespec monotonicIn(int milliseconds) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += (milliseconds % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

// Creates a thread that nobody joins.
int createDetached(pthread_t& tid, void* arg) {
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  error = pthread_create(&tid, &attributes, gThreadRoutine.load(), arg);
  pthread_attr_destroy(&attributes);
  return error;
}

}  // namespace

void setUnitThreadRoutine(UnitThreadRoutine routine) {
  gThreadRoutine = routine != nullptr ? routine : unitBGTranscodeThread;
}

// The runs of one unit that have not ended, and what wakes those that wait. Guarded by the
// unit's mutex.
class KxTranscodeUnit2::Runs {
 public:
  Runs() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_changed, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~Runs() { pthread_cond_destroy(&m_changed); }
  Runs(const Runs&) = delete;
  Runs& operator=(const Runs&) = delete;

  void add(unsigned generation) {
    m_live.emplace(generation, UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
  }

  void remove(unsigned generation) {
    m_live.erase(generation);
    wake();
  }

  // Every start adds one run and creates one thread, so the threads may share out the runs
  // in whatever order they come. 0 when no run is left.
  unsigned takeNext() {
    const auto next = m_live.upper_bound(m_begun);
    if (next == m_live.end()) return 0;
    m_begun = next->first;
    return m_begun;
  }

  int endFd(unsigned generation) const {
    const auto run = m_live.find(generation);
    return run == m_live.end() ? -1 : run->second.get();
  }

  void tellToEnd(unsigned generation) {
    const int fd = endFd(generation);
    if (fd >= 0) eventfd_write(fd, 1);
    wake();
  }

  size_t count() const { return m_live.size(); }
  bool hasEarlierThan(unsigned generation) const {
    return !m_live.empty() && m_live.begin()->first < generation;
  }

  void wake() { pthread_cond_broadcast(&m_changed); }
  void wait(pthread_mutex_t& mutex) { pthread_cond_wait(&m_changed, &mutex); }
  bool waitUntil(pthread_mutex_t& mutex, const timespec& deadline) {
    return pthread_cond_timedwait(&m_changed, &mutex, &deadline) == 0;
  }

 private:
  std::map<unsigned, UniqueFd> m_live;  // generation, descriptor that tells it to end
  unsigned m_begun = 0;                 // newest generation that a thread has taken
  pthread_cond_t m_changed;
};

KxTranscodeUnit2::KxTranscodeUnit2()
    : m_isEmpty(true), m_status(UNIT_UNDEFINED), m_tid(kNoThread), m_pid(-1), m_progress(0),
      m_generation(0), m_runs(std::make_unique<Runs>()) {
  if (miscMutexInit(m_mutex, nullptr) != 0) KX_LOG("KxTranscodeUnit init mutex fail\n");
}

KxTranscodeUnit2::KxTranscodeUnit2(const KxTranscodeUnit2& other) {
  if (miscMutexInit(m_mutex, nullptr) != 0) KX_LOG("KxTranscodeUnit init mutex fail\n");
  const UnitLock lock(other.m_mutex);
  m_isEmpty = other.m_isEmpty;
  m_status = other.m_status;
  m_reg = other.m_reg;
  m_task = other.m_task;
  m_tid = other.m_tid;
  m_pid = other.m_pid;
  m_progress = other.m_progress;
  m_generation = other.m_generation;
}

KxTranscodeUnit2::~KxTranscodeUnit2() {
  if (miscMutexDestroy(m_mutex) != 0) KX_LOG("KxTranscodeUnit destroy mutex fail\n");
}

int KxTranscodeUnit2::init(KxDBTask& task) {
  return withMutex(m_mutex, __func__, [&] {
    if (!m_isEmpty || m_status != UNIT_UNDEFINED) {
      KX_LOG_AS("init", "this unit already init\n");
      return 1;
    }
    if (task.isEmpty) {
      KX_LOG_AS("init", "resource is empty\n");
      return 1;
    }
    m_task = task;
    m_isEmpty = false;
    m_status = UNIT_ALREADY_INIT;
    return 0;
  });
}

int KxTranscodeUnit2::start() {
  return change(UnitCall::kStart, __func__);
}

int KxTranscodeUnit2::stop() {
  return change(UnitCall::kStop, __func__);
}

int KxTranscodeUnit2::pending() {
  return change(UnitCall::kPending, __func__);
}

int KxTranscodeUnit2::change(UnitCall call, const char* function) {
  return withMutex(m_mutex, function, [&] {
    const UnitTransition transition = unitTransition(call, m_status);
    KX_LOG_AS(function, "%s", transition.text);
    // A runner always sees start first, and a suspended job is finished even when it cannot
    // be written back: the state changes before anything is done about it.
    m_status = transition.to;
    switch (transition.action) {
    case UnitAction::kNone:
      break;
    case UnitAction::kLaunchRunner:
      return launchRunnerLocked();
    case UnitAction::kEndRun:
      if (m_runs) m_runs->tellToEnd(m_generation);
      break;
    case UnitAction::kWriteBack:
      writeBackAsWaitingLocked();
      break;
    }
    return transition.result;
  });
}

int KxTranscodeUnit2::launchRunnerLocked() {
  int error = EINVAL;  // of a copy
  if (m_runs) {
    const unsigned generation = m_generation + 1;
    m_runs->add(generation);
    error = createDetached(m_tid, this);
    if (error == 0) {
      m_generation = generation;
      return 0;
    }
    m_runs->remove(generation);
  }
  m_tid = kNoThread;
  m_status = UNIT_FINISH;
  KX_LOG_AS("start", "pthread_create() fail\n");
  return error;
}

void KxTranscodeUnit2::writeBackAsWaitingLocked() {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  if (store->mutexLock() != 0) {
    KX_LOG_AS("stop", "pending->stop, DBMgr mutex lock fail\n");
    return;
  }
  KxDBTaskParam waiting = m_task.param;
  waiting.dateStart = 0;
  waiting.dateFinish = 0;
  waiting.status = JOB_WAITING;
  if (store->updateDBJobDateFinish(waiting) != 0) KX_LOG_AS("stop", "updateDBJobDateFinish fail\n");
  if (store->updateDBJobStatus(waiting) != 0) KX_LOG_AS("stop", "updateDBJobStatus fail\n");
  if (store->mutexUnLock() != 0) KX_LOG_AS("stop", "DBMgr mutex unlock fail\n");
}

void KxTranscodeUnit2::dump() {
  withMutex(m_mutex, __func__, [&] {
    myDebugUtilWrapperPrint(
        4, 0, kLogSource, __LINE__, "dump", "unit status=%d, tid=%ld, pid=%d, progress=%d\n",
        static_cast<int>(m_status), static_cast<long>(m_tid), m_pid, m_progress);
    m_task.dump();
    m_reg.dump();
    return 0;
  });
}

KxUnitState_e KxTranscodeUnit2::getState() const {
  const UnitLock lock(m_mutex);
  return m_status;
}

KxDBTask KxTranscodeUnit2::getTask() const {
  const UnitLock lock(m_mutex);
  return m_task;
}

KxRegister KxTranscodeUnit2::getReg() const {
  const UnitLock lock(m_mutex);
  return m_reg;
}

int KxTranscodeUnit2::getPid() const {
  const UnitLock lock(m_mutex);
  return m_pid;
}

int KxTranscodeUnit2::getProgress() const {
  const UnitLock lock(m_mutex);
  return m_progress;
}

bool KxTranscodeUnit2::isReapable() const {
  const UnitLock lock(m_mutex);
  return m_status == UNIT_FINISH && (!m_runs || m_runs->count() == 0);
}

int KxTranscodeUnit2::getLiveRunners() const {
  const UnitLock lock(m_mutex);
  return m_runs ? static_cast<int>(m_runs->count()) : 0;
}

KxUnitRun KxTranscodeUnit2::beginRun() {
  const UnitLock lock(m_mutex);
  KxUnitRun run;
  run.task = m_task;
  if (!m_runs) return run;
  run.generation = m_runs->takeNext();
  run.endFd = m_runs->endFd(run.generation);
  if (isNewestLocked(run.generation)) m_tid = pthread_self();
  return run;
}

KxUnitState_e KxTranscodeUnit2::waitForTurn(unsigned generation) {
  const UnitLock lock(m_mutex);
  while (stateForLocked(generation) == UNIT_START && m_runs->hasEarlierThan(generation))
    m_runs->wait(m_mutex);
  return stateForLocked(generation);
}

KxUnitState_e KxTranscodeUnit2::stateFor(unsigned generation) const {
  const UnitLock lock(m_mutex);
  return stateForLocked(generation);
}

KxUnitState_e KxTranscodeUnit2::waitWhileRunning(unsigned generation, int milliseconds) const {
  const timespec deadline = monotonicIn(std::max(milliseconds, 0));
  const UnitLock lock(m_mutex);
  while (stateForLocked(generation) == UNIT_START && m_runs->waitUntil(m_mutex, deadline)) {
  }
  return stateForLocked(generation);
}

void KxTranscodeUnit2::setReg(unsigned generation, const KxRegister& reg) {
  const UnitLock lock(m_mutex);
  if (isNewestLocked(generation)) m_reg = reg;
}

void KxTranscodeUnit2::setPid(unsigned generation, int pid) {
  const UnitLock lock(m_mutex);
  if (isNewestLocked(generation)) m_pid = pid;
}

void KxTranscodeUnit2::setProgress(unsigned generation, int percent) {
  const UnitLock lock(m_mutex);
  if (isNewestLocked(generation)) m_progress = std::clamp(percent, 0, 100);
}

void KxTranscodeUnit2::setLeaveListener(LeaveListener listener, void* context) {
  const std::lock_guard<std::mutex> lock(gLeave.mutex);
  gLeave.listener = listener;
  gLeave.context = context;
}

void KxTranscodeUnit2::leave(unsigned generation) {
  leaveQuietly(generation);
  // From here on the unit may be gone.
  tellLeft();
}

void KxTranscodeUnit2::leaveQuietly(unsigned generation) {
  const UnitLock lock(m_mutex);
  if (isNewestLocked(generation)) {
    if (m_status == UNIT_START || m_status == UNIT_STOP) m_status = UNIT_FINISH;
    m_tid = kNoThread;
    m_pid = -1;
    m_reg.clear();
  }
  if (m_runs) m_runs->remove(generation);
}

KxUnitState_e KxTranscodeUnit2::stateForLocked(unsigned generation) const {
  const bool works = m_status == UNIT_START || m_status == UNIT_STOP;
  return works && isNewestLocked(generation) ? m_status : UNIT_PENDING;
}

bool KxTranscodeUnit2::isNewestLocked(unsigned generation) const {
  return m_runs && generation != 0 && generation == m_generation;
}
