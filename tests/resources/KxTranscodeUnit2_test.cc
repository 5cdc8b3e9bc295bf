#include "KxTranscodeUnit2.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "KxTransDBMgr.h"
#include "resources/UnitState.h"
#include "resources/UnitThread.h"
#include "tests/resources/ResourceFixtures.h"

using kxtest::job;
using kxtest::RecordingLog;
using kxtest::StubRunners;
using kxtest::waitUntil;

namespace {

constexpr auto kStrangeState = static_cast<KxUnitState_e>(42);

struct Rule {
  UnitCall call;
  KxUnitState_e from;
  const char* text;
  KxUnitState_e to;
  int result;
};

const Rule kRules[] = {
    {UnitCall::kStart, UNIT_UNDEFINED, "this unit do not init\n", UNIT_UNDEFINED, 1},
    {UnitCall::kStart, UNIT_ALREADY_INIT, "already_init -> start, this unit is start\n", UNIT_START,
     0},
    {UnitCall::kStart, UNIT_START, "this unit is already start\n", UNIT_START, 0},
    {UnitCall::kStart, UNIT_STOP, "stop -> start, illegal behavior\n", UNIT_STOP, 1},
    {UnitCall::kStart, UNIT_PENDING, "pending -> start, this unit is reinvoked\n", UNIT_START, 0},
    {UnitCall::kStart, UNIT_FINISH, "finish -> start, illegal behavior\n", UNIT_FINISH, 1},
    {UnitCall::kStart, kStrangeState,
     "? -> start, this unit is in undefine status, illegal behavior\n", kStrangeState, 1},
    {UnitCall::kStop, UNIT_UNDEFINED, "this unit do not init\n", UNIT_UNDEFINED, 1},
    {UnitCall::kStop, UNIT_ALREADY_INIT, "already_init -> stop, this unit is already stop\n",
     UNIT_FINISH, 0},
    {UnitCall::kStop, UNIT_START, "start -> stop, stop this unit\n", UNIT_STOP, 0},
    {UnitCall::kStop, UNIT_STOP, "stop -> stop, this unit is already stop\n", UNIT_STOP, 0},
    {UnitCall::kStop, UNIT_PENDING,
     "pending -> stop, we update job DB status as WAIT and set KxTranscodeUnit status as finish\n",
     UNIT_FINISH, 0},
    {UnitCall::kStop, UNIT_FINISH, "finish -> stop, illegal behavior\n", UNIT_FINISH, 1},
    {UnitCall::kStop, kStrangeState,
     "? -> stop, this unit is in undefine status, illegal behavior\n", kStrangeState, 1},
    {UnitCall::kPending, UNIT_UNDEFINED, "this unit do not init\n", UNIT_UNDEFINED, 1},
    {UnitCall::kPending, UNIT_ALREADY_INIT, "already_init -> pending, set status to finish\n",
     UNIT_FINISH, 0},
    {UnitCall::kPending, UNIT_START, "start -> pending, pending transcode\n", UNIT_PENDING, 0},
    {UnitCall::kPending, UNIT_STOP, "stop -> pending, illegal behavior.\n", UNIT_STOP, 1},
    {UnitCall::kPending, UNIT_PENDING, "pending -> pending, this unit is already pending\n",
     UNIT_PENDING, 0},
    {UnitCall::kPending, UNIT_FINISH, "this unit is finish, illegal behavior.\n", UNIT_FINISH, 1},
    {UnitCall::kPending, kStrangeState,
     "? -> pending, this unit is in undefine status, illegal behavior\n", kStrangeState, 1},
};

struct Operation {
  int (KxTranscodeUnit2::*run)();
  const char* name;
};

Operation operationOf(UnitCall call) {
  switch (call) {
  case UnitCall::kStart:
    return {&KxTranscodeUnit2::start, "start"};
  case UnitCall::kStop:
    return {&KxTranscodeUnit2::stop, "stop"};
  case UnitCall::kPending:
    return {&KxTranscodeUnit2::pending, "pending"};
  }
  return {nullptr, ""};
}

class StoreLock {
 public:
  StoreLock() { KxTransDBMgr::getInstance()->mutexLock(); }
  ~StoreLock() { KxTransDBMgr::getInstance()->mutexUnLock(); }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
};

// While it lives no thread can be created with default attributes: its stack would not fit
// into the address space.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&m_before);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size_t{1} << 47);
    EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
  }
  ~NoThreads() { pthread_setattr_default_np(&m_before); }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t m_before;
};

// A real job store with one running row, for suspended jobs that are stopped.
class Store {
 public:
  Store() {
    m_root.script("/usr/local/medialibrary/bin/catalogcmd", "exit 0\n");
    EXPECT_EQ(store().init(m_dir / "jobs.db"), 0);
    const StoreLock lock;
    EXPECT_EQ(store().exec("INSERT INTO JobTable (Id, SrcPath, DstPath, DateStart, DateFinish, "
                           "Status, JobFlag, Rank) VALUES(7, '/share/clip.mp4', '', 5, 6, 3, 1, "
                           "1);"),
              0);
  }
  ~Store() { store().uninit(); }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  long long column(const std::string& name) {
    const StoreLock lock;
    long long value = -99;
    store().selectOneInt("SELECT " + name + " AS res FROM JobTable WHERE Id = 7;", value);
    return value;
  }

 private:
  static KxTransDBMgr& store() { return *KxTransDBMgr::getInstance(); }

  kxtest::PrivateRoot m_root;
  kxtest::TempDir m_dir;
};

// Brings a unit into a state by its own operations.
void bringTo(KxTranscodeUnit2& unit, StubRunners& runners, KxUnitState_e state) {
  if (state == UNIT_UNDEFINED) return;
  KxDBTask task = job(7);
  ASSERT_EQ(unit.init(task), 0);
  if (state == UNIT_ALREADY_INIT) return;
  if (state == UNIT_FINISH) {
    ASSERT_EQ(unit.stop(), 0);
    return;
  }
  runners.setLingering(true);
  ASSERT_EQ(unit.start(), 0);
  ASSERT_TRUE(waitUntil([&] { return runners.working() == 1; }));
  if (state == UNIT_STOP) {
    ASSERT_EQ(unit.stop(), 0);
  }
  if (state == UNIT_PENDING) {
    ASSERT_EQ(unit.pending(), 0);
  }
}

void letAllLeave(KxTranscodeUnit2& unit, StubRunners& runners) {
  runners.setLingering(false);
  if (unit.getState() == UNIT_START) unit.stop();
  EXPECT_TRUE(waitUntil([&] { return unit.getLiveRunners() == 0; }));
}

}  // namespace

TEST(UnitState, TheTableHoldsEveryTransition) {
  for (const Rule& rule : kRules) {
    const UnitTransition transition = unitTransition(rule.call, rule.from);
    EXPECT_STREQ(transition.text, rule.text);
    EXPECT_EQ(transition.to, rule.to) << rule.text;
    EXPECT_EQ(transition.result, rule.result) << rule.text;
  }
  EXPECT_EQ(unitTransition(UnitCall::kStop, static_cast<KxUnitState_e>(-1)).result, 1);
}

TEST(KxTranscodeUnit2, EveryCallInEveryStateLogsAndAnswersAsTheTableSays) {
  Store store;
  for (const Rule& rule : kRules) {
    if (rule.from == kStrangeState) continue;
    StubRunners runners;
    KxTranscodeUnit2 unit;
    bringTo(unit, runners, rule.from);
    ASSERT_EQ(unit.getState(), rule.from);
    const Operation operation = operationOf(rule.call);
    RecordingLog log;
    EXPECT_EQ((unit.*operation.run)(), rule.result) << rule.text;
    EXPECT_EQ(unit.getState(), rule.to) << rule.text;
    const auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].text, rule.text);
    EXPECT_EQ(lines[0].func, operation.name);
    EXPECT_EQ(lines[0].source, "KxTranscodeUnit2");
    EXPECT_EQ(lines[0].level, 5);
    letAllLeave(unit, runners);
  }
}

TEST(KxTranscodeUnit2, IsBornWithoutAJob) {
  KxTranscodeUnit2 unit;
  EXPECT_EQ(unit.getState(), UNIT_UNDEFINED);
  EXPECT_EQ(unit.getPid(), -1);
  EXPECT_EQ(unit.getProgress(), 0);
  EXPECT_TRUE(unit.getTask().isEmpty);
  EXPECT_TRUE(unit.getReg().isEmpty);
  EXPECT_FALSE(unit.isReapable());
}

TEST(KxTranscodeUnit2, TakesOneJobOnce) {
  RecordingLog log;
  KxTranscodeUnit2 unit;
  KxDBTask nothing;
  EXPECT_EQ(unit.init(nothing), 1);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "resource is empty\n"));
  EXPECT_EQ(unit.getState(), UNIT_UNDEFINED);
  KxDBTask first = job(1);
  KxDBTask second = job(2);
  EXPECT_EQ(unit.init(first), 0);
  EXPECT_EQ(unit.getState(), UNIT_ALREADY_INIT);
  EXPECT_EQ(unit.init(second), 1);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "this unit already init\n"));
  EXPECT_EQ(unit.getTask().param.id, 1);
}

TEST(KxTranscodeUnit2, DumpsItsStateAtLevelFour) {
  RecordingLog log;
  KxTranscodeUnit2 unit;
  KxDBTask task = job(1);
  unit.init(task);
  unit.dump();
  const auto lines = log.lines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0].text, "unit status=1, tid=-1, pid=-1, progress=0\n");
  EXPECT_EQ(lines[0].level, 4);
  EXPECT_EQ(lines[1].text, "---KxDBTask:\n");
  EXPECT_TRUE(log.has("---KxRegister:\n"));
}

TEST(KxTranscodeUnit2, ARunnerWorksUntilItIsStoppedAndThenTheUnitIsFinished) {
  StubRunners runners;
  KxTranscodeUnit2 unit;
  bringTo(unit, runners, UNIT_START);
  EXPECT_TRUE(waitUntil([&] { return unit.getProgress() == 40; }));
  EXPECT_EQ(unit.getPid(), 4711);
  EXPECT_EQ(unit.getLiveRunners(), 1);
  EXPECT_EQ(unit.stop(), 0);
  EXPECT_EQ(unit.getState(), UNIT_STOP);
  EXPECT_FALSE(unit.isReapable());
  runners.setLingering(false);
  EXPECT_TRUE(waitUntil([&] { return unit.isReapable(); }));
  EXPECT_EQ(unit.getState(), UNIT_FINISH);
  EXPECT_EQ(unit.getPid(), -1);
  EXPECT_EQ(runners.toldToStop(), 1);
}

TEST(KxTranscodeUnit2, TellsTheListenerWhenARunnerHasLeftAndTheUnitIsReapable) {
  struct Seen {
    KxTranscodeUnit2 unit;
    std::atomic<int> calls{0};
    std::atomic<bool> wasReapable{false};
  } seen;
  KxTranscodeUnit2::setLeaveListener(
      [](void* context) {
        auto* told = static_cast<Seen*>(context);
        told->wasReapable = told->unit.isReapable();
        ++told->calls;
      },
      &seen);
  StubRunners runners;
  bringTo(seen.unit, runners, UNIT_STOP);
  EXPECT_EQ(seen.calls, 0);
  runners.setLingering(false);
  EXPECT_TRUE(waitUntil([&] { return seen.calls == 1; }));
  EXPECT_TRUE(seen.wasReapable);
  KxTranscodeUnit2::setLeaveListener(nullptr, nullptr);
}

TEST(KxTranscodeUnit2, ASuspendedUnitStaysPendingWhenItsRunnerHasLeft) {
  StubRunners runners;
  KxTranscodeUnit2 unit;
  bringTo(unit, runners, UNIT_PENDING);
  runners.setLingering(false);
  EXPECT_TRUE(waitUntil([&] { return unit.getLiveRunners() == 0; }));
  EXPECT_EQ(unit.getState(), UNIT_PENDING);
  EXPECT_FALSE(unit.isReapable());
  EXPECT_EQ(runners.toldToLeave(), 1);
}

TEST(KxTranscodeUnit2, AResumedJobIsNeverWorkedOnByTwoRunners) {
  StubRunners runners;
  KxTranscodeUnit2 unit;
  bringTo(unit, runners, UNIT_PENDING);
  EXPECT_EQ(unit.start(), 0);
  EXPECT_EQ(unit.getLiveRunners(), 2);
  ASSERT_TRUE(waitUntil([&] { return runners.begun() == 2; }));
  EXPECT_EQ(runners.working(), 1) << "the new runner waits for the old one";
  runners.setLingering(false);
  EXPECT_TRUE(waitUntil([&] { return runners.left() == 1 && runners.working() == 1; }));
  EXPECT_EQ(unit.getState(), UNIT_START) << "an old runner does not finish the unit";
  EXPECT_EQ(runners.toldToLeave(), 1);
  EXPECT_EQ(unit.stop(), 0);
  EXPECT_TRUE(waitUntil([&] { return unit.isReapable(); }));
  EXPECT_EQ(runners.toldToStop(), 1);
  EXPECT_EQ(runners.mostAtWork(), 1);
}

TEST(KxTranscodeUnit2, OnlyTheNewestRunIsHeard) {
  kxtest::StubRunners runners;
  KxTranscodeUnit2 unit;
  bringTo(unit, runners, UNIT_START);
  EXPECT_TRUE(waitUntil([&] { return unit.getProgress() == 40; }));
  const unsigned newest = 1;
  for (const unsigned other : {0U, 2U}) {
    EXPECT_EQ(unit.stateFor(other), UNIT_PENDING);
    EXPECT_EQ(unit.waitWhileRunning(other, 60000), UNIT_PENDING);
    EXPECT_EQ(unit.waitForTurn(other), UNIT_PENDING);
    unit.setPid(other, 5);
    unit.setProgress(other, 99);
    unit.setReg(other, kxtest::unitRegistration("sw_cpu", RES2_SW_CPU, job(7)));
    unit.leave(other);
  }
  EXPECT_EQ(unit.getState(), UNIT_START);
  EXPECT_EQ(unit.getPid(), 4711);
  EXPECT_EQ(unit.getProgress(), 40);
  EXPECT_TRUE(unit.getReg().isEmpty);
  EXPECT_EQ(unit.stateFor(newest), UNIT_START);
  unit.setProgress(newest, 140);
  EXPECT_EQ(unit.getProgress(), 100);
  unit.setProgress(newest, -1);
  EXPECT_EQ(unit.getProgress(), 0);
  unit.setReg(newest, kxtest::unitRegistration("sw_cpu", RES2_SW_CPU, job(7)));
  EXPECT_EQ(unit.getReg().m_resId, "sw_cpu");
  letAllLeave(unit, runners);
  EXPECT_TRUE(unit.getReg().isEmpty);
}

TEST(KxTranscodeUnit2, AStopIsSeenAtOnceOnTheDescriptorAndInTheWait) {
  // The runner is played by this test: the launched thread does nothing.
  static std::atomic<int> launched{0};
  launched = 0;
  setUnitThreadRoutine([](void*) -> void* {
    ++launched;
    return nullptr;
  });
  KxTranscodeUnit2 unit;
  KxDBTask task = job(7, "/share/x.mp4");
  ASSERT_EQ(unit.init(task), 0);
  ASSERT_EQ(unit.start(), 0);
  ASSERT_TRUE(waitUntil([] { return launched == 1; }));
  setUnitThreadRoutine(nullptr);

  const KxUnitRun run = unit.beginRun();
  EXPECT_EQ(run.generation, 1U);
  EXPECT_EQ(run.task.param.src, "/share/x.mp4");
  ASSERT_GE(run.endFd, 0);
  EXPECT_EQ(unit.beginRun().generation, 0U) << "each run is handed out once";
  pollfd end{run.endFd, POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, 0), 0);
  EXPECT_EQ(unit.waitWhileRunning(run.generation, 1), UNIT_START);
  EXPECT_EQ(unit.waitForTurn(run.generation), UNIT_START);

  std::thread stopper([&] { unit.stop(); });
  EXPECT_EQ(unit.waitWhileRunning(run.generation, 60000), UNIT_STOP);
  EXPECT_EQ(poll(&end, 1, 60000), 1);
  EXPECT_EQ(poll(&end, 1, 0), 1) << "it stays readable";
  stopper.join();
  unit.leave(run.generation);
  EXPECT_TRUE(unit.isReapable());
}

TEST(KxTranscodeUnit2, ARunnerThatOutlivesAStopFromPendingLeavesWithoutWriting) {
  Store store;
  StubRunners runners;
  KxTranscodeUnit2 unit;
  bringTo(unit, runners, UNIT_PENDING);
  EXPECT_EQ(unit.stop(), 0);
  EXPECT_EQ(unit.getState(), UNIT_FINISH);
  EXPECT_FALSE(unit.isReapable()) << "the runner is still at work";
  runners.setLingering(false);
  EXPECT_TRUE(waitUntil([&] { return unit.isReapable(); }));
  EXPECT_EQ(runners.toldToStop(), 0);
  EXPECT_EQ(runners.toldToLeave(), 1);
}

TEST(KxTranscodeUnit2, StoppingASuspendedUnitPutsItsJobBackIntoTheQueue) {
  Store store;
  StubRunners runners;
  KxTranscodeUnit2 unit;
  ASSERT_EQ(store.column("Status"), 3);
  bringTo(unit, runners, UNIT_PENDING);
  RecordingLog log;
  EXPECT_EQ(unit.stop(), 0);
  EXPECT_EQ(store.column("Status"), 0);
  EXPECT_EQ(store.column("DateFinish"), 0);
  EXPECT_FALSE(log.hasPart("updateDBJobDateFinish fail"));
  EXPECT_FALSE(log.hasPart("updateDBJobStatus fail"));
  letAllLeave(unit, runners);
}

TEST(KxTranscodeUnit2, FinishesASuspendedUnitWhoseJobCannotBeWrittenBack) {
  StubRunners runners;
  KxTranscodeUnit2 unit;
  KxDBTask broken = job(-5);
  ASSERT_EQ(unit.init(broken), 0);
  ASSERT_EQ(unit.start(), 0);
  ASSERT_EQ(unit.pending(), 0);
  RecordingLog log;
  EXPECT_EQ(unit.stop(), 0);
  EXPECT_EQ(unit.getState(), UNIT_FINISH);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "updateDBJobDateFinish fail\n"));
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "updateDBJobStatus fail\n"));
  letAllLeave(unit, runners);
}

TEST(KxTranscodeUnit2, ACopyShowsTheUnitAndCannotBeStarted) {
  StubRunners runners;
  KxTranscodeUnit2 unit;
  bringTo(unit, runners, UNIT_PENDING);
  RecordingLog log;
  KxTranscodeUnit2 copy(unit);
  EXPECT_EQ(copy.getState(), UNIT_PENDING);
  EXPECT_EQ(copy.getTask().param.id, 7);
  EXPECT_EQ(copy.getProgress(), unit.getProgress());
  EXPECT_EQ(copy.getLiveRunners(), 0);
  EXPECT_NE(copy.start(), 0);
  EXPECT_TRUE(log.has("pthread_create() fail\n"));
  EXPECT_EQ(copy.getState(), UNIT_FINISH);
  EXPECT_EQ(unit.getState(), UNIT_PENDING);
  EXPECT_EQ(unit.getLiveRunners(), 1);
  letAllLeave(unit, runners);
}

TEST(KxTranscodeUnit2, IsFinishedWhenNoThreadCanBeCreated) {
  KxTranscodeUnit2 unit;
  KxDBTask task = job(7);
  ASSERT_EQ(unit.init(task), 0);
  RecordingLog log;
  {
    const NoThreads noThreads;
    EXPECT_NE(unit.start(), 0);
  }
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "pthread_create() fail\n"));
  EXPECT_EQ(unit.getState(), UNIT_FINISH);
  EXPECT_TRUE(unit.isReapable());
  EXPECT_EQ(unit.start(), 1);
}

TEST(KxTranscodeUnit2, SurvivesQuickSuspendingAndResumingFromManyThreads) {
  StubRunners runners;
  KxTranscodeUnit2 unit;
  KxDBTask task = job(7);
  ASSERT_EQ(unit.init(task), 0);
  ASSERT_EQ(unit.start(), 0);
  const auto suspendAndResume = [&unit](int offset) {
    for (int i = 0; i < 60; ++i) {
      (i + offset) % 2 == 0 ? unit.pending() : unit.start();
      const KxTranscodeUnit2 copy(unit);
      EXPECT_GE(copy.getProgress(), 0);
    }
  };
  std::vector<std::thread> callers;
  callers.reserve(3);
  for (int offset : {0, 1, 2}) callers.emplace_back(suspendAndResume, offset);
  for (std::thread& caller : callers) caller.join();
  unit.start();
  EXPECT_EQ(unit.getState(), UNIT_START);
  EXPECT_EQ(unit.stop(), 0);
  EXPECT_TRUE(waitUntil([&] { return unit.isReapable(); }));
  EXPECT_LE(runners.mostAtWork(), 1);
  EXPECT_EQ(runners.toldToStop(), 1);
}

TEST(KxTranscodeUnit2, TheThreadRoutineRefusesNoUnit) {
  RecordingLog log;
  EXPECT_EQ(unitBGTranscodeThread(nullptr), nullptr);
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "no KxTranscodeUnit object\n"));
}
