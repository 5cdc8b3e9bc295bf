#include "daemon/ScheduleLoop.h"

#include <algorithm>

#include "KxAbstractTranscodeSvr.h"
#include "KxHostPlatform.h"
#include "daemon/LibraryLocks.h"
#include "daemon/MemoryTrim.h"
#include "daemon/VolumeRoom.h"
#include "daemon/WaitingRows.h"
#include "frame/Log.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";
constexpr std::chrono::seconds kHouseKeeping{5};
constexpr std::chrono::seconds kResourceCount{60};
constexpr std::chrono::seconds kYoung{5};  // until a unit's memory shows in the free memory
constexpr int kMaxSkipped = 4096;          // rows without room that one round looks at

constexpr std::chrono::milliseconds kSoon{500};  // between rounds for jobs that come in a row

std::string carryOut(const StopOperation& operation) {
  if (operation.takesLocks) return operation.act();
  const StoreLock store;
  return operation.act();
}

void onRunnerLeft(void* loop) {
  static_cast<ScheduleLoop*>(loop)->notify();
}

}  // namespace

ScheduleLoop::ScheduleLoop(Server server, int maxUnits, std::chrono::seconds settleTime)
    : m_server(std::move(server)), m_configuredUnits(maxUnits), m_watched(settleTime) {}

ScheduleLoop::~ScheduleLoop() {
  if (m_thread.joinable()) stop(std::chrono::seconds(0));
}

void ScheduleLoop::start() {
  KxTranscodeUnit2::setLeaveListener(onRunnerLeft, this);
  m_thread = std::thread([this] { run(); });
}

void ScheduleLoop::notify() {
  MutexLock lock(m_mutex);
  m_isNotified = true;
  m_changed.notify_all();
}

void ScheduleLoop::notifySoon() {
  MutexLock lock(m_mutex);
  m_isSoon = true;
  m_changed.notify_all();
}

std::future<std::string> ScheduleLoop::submit(StopOperation operation) {
  OpenOperation open;
  open.operation = std::move(operation);
  std::future<std::string> result = open.result.get_future();
  MutexLock lock(m_mutex);
  if (m_isStopping) {
    open.result.set_value("the service is ending");
    return result;
  }
  m_submitted.push_back(std::move(open));
  m_isNotified = true;
  m_changed.notify_all();
  return result;
}

bool ScheduleLoop::stop(std::chrono::milliseconds limit) {
  {
    MutexLock lock(m_mutex);
    m_isStopping = true;
    m_changed.notify_all();
  }
  if (m_thread.joinable()) m_thread.join();
  stopAllUnits();
  const bool allEnded = waitForUnits(limit);
  settleOperations();
  KxTranscodeUnit2::setLeaveListener(nullptr, nullptr);
  return allEnded;
}

bool ScheduleLoop::waitForUnits(std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  for (;;) {
    {
      MutexLock lock(m_mutex);
      m_isNotified = false;
    }
    reapUnits();
    if (unitJobs().empty()) return true;
    MutexLock lock(m_mutex);
    while (!m_isNotified)
      if (m_changed.wait_until(m_mutex, deadline) == std::cv_status::timeout) return false;
  }
}

void ScheduleLoop::run() {
  while (waitForWork()) {
    reapUnits();
    keepHouse();
    endPauseInTime();
    settleOperations();
    startJobs();
  }
}

bool ScheduleLoop::waitForWork() {
  Clock::time_point wakeUp = m_nextHouseKeeping;
  if (const auto pauseEnd = m_server.pauseEnd()) wakeUp = std::min(wakeUp, *pauseEnd);
  if (const auto look = m_watched.nextLook()) wakeUp = std::min(wakeUp, *look);
  MutexLock lock(m_mutex);
  while (!m_isNotified && !m_isStopping) {
    const Clock::time_point limit = m_isSoon ? std::min(wakeUp, m_lastRound + kSoon) : wakeUp;
    if (m_changed.wait_until(m_mutex, limit) == std::cv_status::timeout) break;
  }
  m_isNotified = m_isSoon = false;
  m_lastRound = Clock::now();
  m_open.splice(m_open.end(), m_submitted);
  return !m_isStopping;
}

void ScheduleLoop::keepHouse() {
  const Clock::time_point now = Clock::now();
  if (now < m_nextHouseKeeping) return;
  m_nextHouseKeeping = now + kHouseKeeping;
  checkRegistrations();
  requeueOrphans();
  kxRemoveStrayCheckpoints();
  trimWhenIdle();
  if (m_configuredUnits > 0) {
    m_maxUnits = m_configuredUnits;
  } else if (now >= m_nextResourceCount) {
    m_nextResourceCount = now + kResourceCount;
    m_maxUnits = defaultMaxUnits(MyUtil_GetCpuNum(), countHardwareResources());
  }
}

void ScheduleLoop::trimWhenIdle() {
  const bool isIdle = unitJobs().empty();
  if (isIdle && m_hasWorked) giveBackMemory();
  m_hasWorked = !isIdle;
}

void ScheduleLoop::endPauseInTime() {
  const auto isOver = [this] {
    const auto end = m_server.pauseEnd();
    return end && *end <= Clock::now();
  };
  if (!isOver()) return;
  KX_LOG("the pause is over\n");
  resumeUnits(isOver, m_server.endPause);
}

void ScheduleLoop::settleOperations() {
  {
    MutexLock lock(m_mutex);
    m_open.splice(m_open.end(), m_submitted);
  }
  for (auto open = m_open.begin(); open != m_open.end();) {
    const JobFilter& matches = open->operation.matches;
    if (!open->isStopping) stopUnits(matches);
    open->isStopping = true;
    reapUnits();
    const std::vector<KxDBTaskParam> units = unitJobs();
    if (std::any_of(units.begin(), units.end(), matches)) {
      ++open;
      continue;
    }
    const std::string result = carryOut(open->operation);
    kxRemoveStrayCheckpoints();
    open->result.set_value(result);
    open = m_open.erase(open);
  }
}

bool ScheduleLoop::isHeld(const KxDBTaskParam& job) {
  return std::any_of(m_open.begin(), m_open.end(),
                     [&](const OpenOperation& open) { return open.operation.matches(job); });
}

int ScheduleLoop::slotsNow(const std::vector<KxDBTaskParam>& units) {
  const Clock::time_point now = Clock::now();
  std::map<int64_t, Clock::time_point> known;
  SchedulerState state;
  for (const KxDBTaskParam& job : units) {
    const auto started = m_startTimes.find(job.id);
    if (started == m_startTimes.end()) continue;
    known.insert(*started);
    if (now - started->second < kYoung) ++state.youngUnits;
  }
  m_startTimes = std::move(known);
  state.svrStatus = m_server.status();
  state.activeUnits = static_cast<int>(units.size());
  state.maxUnits = m_maxUnits;
  if (state.svrStatus != SVR_RUNNING || state.activeUnits >= state.maxUnits) return 0;
  state.availableKb = availableMemoryKb();
  return freeSlots(state);
}

// Told once for each time that a job begins to wait for room.
bool ScheduleLoop::hasRoom(const KxDBTaskParam& job, RoomLedger& room) {
  if (room.reserve(job)) {
    m_withoutRoom.erase(job.id);
    return true;
  }
  if (m_withoutRoom.contains(job.id)) return false;
  const std::string fault = roomFault(job);
  // Without a fault only the jobs that run now are in its way.
  if (!fault.empty()) {
    if (m_withoutRoom.size() >= kMaxSkipped) m_withoutRoom.clear();
    m_withoutRoom.insert(job.id);
    KX_LOG_LEVEL(3, "job %ld of %s waits for %s\n", static_cast<long>(job.id), job.src.c_str(),
                 fault.c_str());
  }
  return false;
}

// False when the job keeps waiting.
bool ScheduleLoop::startJob(const KxDBTaskParam& job, RoomLedger& room) {
  const auto isRunning = [this] { return m_server.status() == SVR_RUNNING; };
  if (isHeld(job) || !hasRoom(job, room) || !startUnit(job.id, isRunning)) return false;
  m_startTimes[job.id] = Clock::now();
  m_hasWorked = true;
  return true;
}

std::string ScheduleLoop::obstacleOf(const KxDBTaskParam& job) {
  const int status = m_server.status();
  if (status == SVR_STOPPED) return "the service, which is stopped";
  if (status == SVR_PAUSED) return "the end of the pause";
  {
    MutexLock lock(m_mutex);
    if (m_isDiskFull) return "room on the volume of the queue";
    const auto noted = m_obstacles.find(job.id);
    if (noted != m_obstacles.end()) return noted->second;
  }
  return roomFault(job);
}

bool ScheduleLoop::isDiskFull() {
  const bool isFull = m_server.isDiskFull();
  MutexLock lock(m_mutex);
  m_isDiskFull = isFull;
  return isFull;
}

void ScheduleLoop::startJobs() {
  m_watched.beginRound();
  const std::vector<KxDBTaskParam> units = unitJobs();
  const int slots = slotsNow(units);
  if (slots == 0) return;
  Obstacles obstacles = fillSlots(slots, units);
  MutexLock lock(m_mutex);
  m_obstacles = std::move(obstacles);
}

ScheduleLoop::Obstacles ScheduleLoop::fillSlots(int slots,
                                                const std::vector<KxDBTaskParam>& units) {
  Obstacles obstacles;
  RoomLedger room(volumeOfFile, volumeOfPieces);
  for (const KxDBTaskParam& job : units) room.reserve(job);
  WaitingRows rows;
  bool isDiskChecked = false;
  while (slots > 0 && rows.skipped() < kMaxSkipped) {
    const std::optional<KxDBTaskParam> job = rows.next();
    if (!job) break;
    // Asked only when there is something to start: a full disk is logged each time.
    if (!isDiskChecked && isDiskFull()) break;
    isDiskChecked = true;
    const WatchedJobs::Judgement judgement = m_watched.judge(*job, unitJobs());
    if (judgement.verdict == WatchedJobs::Verdict::Renewed) continue;
    if (judgement.verdict == WatchedJobs::Verdict::Wait) {
      obstacles[job->id] = judgement.waitsFor;
      rows.skip();
    } else if (startJob(*job, room)) {
      --slots;
    } else {
      rows.skip();
    }
  }
  return obstacles;
}

}  // namespace xcoded
