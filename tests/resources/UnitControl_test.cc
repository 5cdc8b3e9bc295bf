// What the manager does with units: by job, by id, by path, all of them, and reaping.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "KxResMgr2.h"
#include "tests/resources/ResourceFixtures.h"

using kxtest::FakeAccelerator;
using kxtest::job;
using kxtest::RecordingLog;
using kxtest::StubRunners;
using kxtest::waitUntil;

namespace {

class UnitControl : public testing::Test {
 public:
  UnitControl() {
    AmpCgroup::setMountRoot(dir / "cgroup");
    root.write("/etc/platform.conf", "Platform = X86_GENERIC\n");
  }
  ~UnitControl() override {
    runners.setLingering(false);
    manager().stopAllUnit();
    EXPECT_TRUE(waitUntil([&] {
      manager().checkUnit();
      return units().empty();
    }));
    AmpCgroup::setMountRoot("/sys/fs/cgroup");
  }

 protected:
  static KxResMgr2& manager() { return *KxResMgr2::getInstance(); }
  static std::vector<KxTranscodeUnit2> units() { return manager().getUnitVec(); }
  static std::vector<KxUnitState_e> states() {
    std::vector<KxUnitState_e> result;
    for (const KxTranscodeUnit2& unit : units()) result.push_back(unit.getState());
    return result;
  }
  static void create(long long id, const std::string& src = "/share/clip.mp4") {
    KxDBTask task = job(id, src);
    ASSERT_EQ(manager().createUnit(task), 0);
  }
  static int start(long long id, const std::string& src = "/share/clip.mp4") {
    KxDBTask task = job(id, src);
    return manager().unitStart(task);
  }
  // Ids of the jobs whose units were finished by a stop before they ran.
  static std::vector<long long> stoppedIds() {
    std::vector<long long> ids;
    for (const KxTranscodeUnit2& unit : units())
      if (unit.getState() == UNIT_FINISH) ids.push_back(unit.getTask().param.id);
    return ids;
  }

  RecordingLog log;
  kxtest::TempDir dir;
  kxtest::PrivateRoot root;
  FakeAccelerator accel{root};
  StubRunners runners;
};

using States = std::vector<KxUnitState_e>;
using JobIds = std::vector<long long>;

}  // namespace

TEST_F(UnitControl, RefusesEmptyJobsEverywhere) {
  KxDBTask empty;
  EXPECT_EQ(manager().createUnit(empty), 1);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "invalid dbTask, unit create fail\n"));
  EXPECT_EQ(manager().unitStart(empty), 1);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "dbTask is empty\n"));
  EXPECT_EQ(manager().unitStop(empty), 1);
  EXPECT_EQ(manager().unitPending(empty), 1);
  EXPECT_EQ(log.count("req is empty\n"), 2U);
  EXPECT_EQ(manager().unitStop(-1LL), 1);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "invalid job id\n"));
  EXPECT_EQ(manager().unitStop(std::string()), 1);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "empty srcPath\n"));
  EXPECT_TRUE(units().empty());
}

TEST_F(UnitControl, ACreatedUnitWaitsAndTwoCallsMakeTwoUnits) {
  create(1);
  create(1);
  EXPECT_EQ(states(), (States{UNIT_ALREADY_INIT, UNIT_ALREADY_INIT}));
  EXPECT_EQ(runners.begun(), 0);
}

TEST_F(UnitControl, StartRunsTheUnitAndASecondStartIsHarmless) {
  create(1);
  create(2);
  EXPECT_EQ(start(1), 0);
  EXPECT_EQ(states(), (States{UNIT_START, UNIT_ALREADY_INIT}));
  EXPECT_TRUE(waitUntil([&] { return runners.working() == 1; }));
  EXPECT_EQ(start(1), 0);
  EXPECT_TRUE(log.has("this unit is already start\n"));
  EXPECT_EQ(runners.begun(), 1);
  EXPECT_EQ(start(99), 0) << "no unit has that job";
}

TEST_F(UnitControl, StartComparesTheWholeJob) {
  create(1, "/share/a.mp4");
  EXPECT_EQ(start(1, "/share/b.mp4"), 0);
  EXPECT_EQ(states(), States{UNIT_ALREADY_INIT});
}

TEST_F(UnitControl, StopsByIdWhateverElseTheJobSays) {
  create(1, "/share/a.mp4");
  create(2);
  EXPECT_EQ(manager().unitStop(55LL), 0);
  EXPECT_EQ(stoppedIds(), JobIds{});
  KxDBTask sameId = job(1, "/share/other.mp4");
  EXPECT_EQ(manager().unitStop(sameId), 0);
  EXPECT_EQ(stoppedIds(), JobIds{1});
  EXPECT_EQ(manager().unitStop(2LL), 0);
  EXPECT_EQ(stoppedIds(), (JobIds{1, 2}));
}

TEST_F(UnitControl, ReapsAUnitThatWasStoppedBeforeItRan) {
  create(1);
  EXPECT_EQ(manager().unitStop(1LL), 0);
  EXPECT_EQ(states(), States{UNIT_FINISH});
  EXPECT_EQ(manager().checkUnit(), 0);
  EXPECT_TRUE(units().empty());
  EXPECT_TRUE(log.has(5, "KxResMgr2", "delete transcode unit\n"));
  EXPECT_TRUE(log.has(4, "KxTranscodeUnit2", "unit status=5, tid=-1, pid=-1, progress=0\n"));
}

TEST_F(UnitControl, ReapsAUnitThatWasSuspendedBeforeItRan) {
  create(1);
  KxDBTask task = job(1);
  EXPECT_EQ(manager().unitPending(task), 0);
  EXPECT_EQ(states(), States{UNIT_FINISH});
  manager().checkUnit();
  EXPECT_TRUE(units().empty());
}

TEST_F(UnitControl, ReapsNeighboursInOneCallAndLeavesTheOthersInOrder) {
  for (long long id : {1, 2, 3, 4, 5}) create(id);
  for (long long id : {2, 3, 5}) manager().unitStop(id);
  EXPECT_EQ(manager().checkUnit(), 0);
  const auto left = units();
  ASSERT_EQ(left.size(), 2U);
  EXPECT_EQ(left[0].getTask().param.id, 1);
  EXPECT_EQ(left[1].getTask().param.id, 4);
  EXPECT_EQ(log.count("delete transcode unit\n"), 3U);
}

TEST_F(UnitControl, ReapingReleasesTheResourcesOfTheJob) {
  ASSERT_EQ(manager().init("kx"), 0);
  create(1);
  KxRegister reg = kxtest::unitRegistration("sw_cpu", RES2_SW_CPU, job(1));
  KxRegister other = kxtest::unitRegistration("sw_cpu", RES2_SW_CPU, job(2));
  ASSERT_EQ(manager().regRes(reg), 0);
  ASSERT_EQ(manager().regRes(other), 0);
  manager().checkUnit();
  EXPECT_EQ(manager().getResVec()[0].reg.size(), 2U);
  manager().unitStop(1LL);
  manager().checkUnit();
  const auto resources = manager().getResVec();
  ASSERT_EQ(resources[0].reg.size(), 1U);
  EXPECT_EQ(resources[0].reg[0].task.param.id, 2);
}

TEST_F(UnitControl, NeverFreesAUnitUnderItsRunner) {
  runners.setLingering(true);
  create(1);
  start(1);
  ASSERT_TRUE(waitUntil([&] { return runners.working() == 1; }));
  manager().unitStop(1LL);
  manager().checkUnit();
  EXPECT_EQ(states(), States{UNIT_STOP});
  runners.setLingering(false);
  EXPECT_TRUE(waitUntil([&] {
    manager().checkUnit();
    return units().empty();
  }));
}

TEST_F(UnitControl, KeepsAFinishedUnitWhoseSuspendedRunnerStillWorks) {
  runners.setLingering(true);
  create(-1);  // no row to write back to
  start(-1);
  ASSERT_TRUE(waitUntil([&] { return runners.working() == 1; }));
  KxDBTask task = job(-1);
  manager().unitPending(task);
  manager().stopAllUnit();
  EXPECT_EQ(states(), States{UNIT_FINISH});
  manager().checkUnit();
  EXPECT_EQ(units().size(), 1U);
  runners.setLingering(false);
  EXPECT_TRUE(waitUntil([&] {
    manager().checkUnit();
    return units().empty();
  }));
  EXPECT_EQ(runners.toldToStop(), 0);
}

TEST_F(UnitControl, StopsByAFilesExactPath) {
  create(1, "/nowhere/a.mp4");
  create(2, "/nowhere/a.mp4.mp4");
  create(3, "/nowhere/a");
  EXPECT_EQ(manager().unitStop(std::string("/nowhere/a.mp4")), 0);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "can not stat /nowhere/a.mp4\n"));
  EXPECT_EQ(stoppedIds(), JobIds{1});
  const std::string real = dir / "real.mp4";
  kxtest::writeFile(real, "x");
  create(4, real);
  log.clear();
  EXPECT_EQ(manager().unitStop(real), 0);
  EXPECT_FALSE(log.hasPart("can not stat"));
  EXPECT_EQ(stoppedIds(), (JobIds{1, 4}));
}

TEST_F(UnitControl, StopsByAFolderAndItsSiblingsOfTheSamePrefix) {
  const std::string video = dir / "Video";
  std::filesystem::create_directories(video);
  create(1, video + "/a.mp4");
  create(2, video + "/sub/deep/a.mp4");
  create(3, video + "2/a.mp4");
  create(4, dir / "Other/a.mp4");
  create(5, dir / "Video.mp4");  // its folder is the parent
  create(6, "Video");
  EXPECT_EQ(manager().unitStop(video), 0);
  EXPECT_EQ(stoppedIds(), (JobIds{1, 2, 3}));
  // The root matches everything, also a source without a folder.
  EXPECT_EQ(manager().unitStop(std::string("/")), 0);
  EXPECT_EQ(stoppedIds(), (JobIds{1, 2, 3, 4, 5, 6}));
}

TEST_F(UnitControl, AFolderOfAJobCountsWithItsTrailingSlash) {
  const std::string video = dir / "Video";
  std::filesystem::create_directories(video);
  create(1, video + "/a.mp4");
  create(2, video + "2/a.mp4");
  EXPECT_EQ(manager().unitStop(video + "/"), 0);
  EXPECT_EQ(stoppedIds(), JobIds{1});
}

TEST_F(UnitControl, AsksAllUnitsInOrderAndDumpsThoseThatRefuse) {
  for (long long id : {1, 2, 3}) create(id);
  manager().unitStop(2LL);
  log.clear();
  EXPECT_EQ(manager().startAllUnit(), 0);
  EXPECT_EQ(states(), (States{UNIT_START, UNIT_FINISH, UNIT_START}));
  EXPECT_EQ(log.count("start transcode unit fail\n"), 1U);
  EXPECT_EQ(log.count("unit status=5, tid=-1, pid=-1, progress=0\n"), 1U);
  log.clear();
  EXPECT_EQ(manager().pauseAllUnit(), 0);
  EXPECT_EQ(states(), (States{UNIT_PENDING, UNIT_FINISH, UNIT_PENDING}));
  EXPECT_EQ(log.count("pause transcode unit fail\n"), 1U);
  EXPECT_EQ(manager().startAllUnit(), 0);
  EXPECT_EQ(states(), (States{UNIT_START, UNIT_FINISH, UNIT_START}));
  log.clear();
  EXPECT_EQ(manager().stopAllUnit(), 0);
  EXPECT_EQ(log.count("stop transcode unit fail\n"), 1U);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "stop transcode unit fail\n"));
}

TEST_F(UnitControl, SuspendsAndResumesAJob) {
  create(1);
  start(1);
  ASSERT_TRUE(waitUntil([&] { return runners.working() == 1; }));
  KxDBTask task = job(1);
  EXPECT_EQ(manager().unitPending(task), 0);
  EXPECT_EQ(states(), States{UNIT_PENDING});
  manager().checkUnit();
  EXPECT_EQ(units().size(), 1U) << "a suspended unit is kept";
  EXPECT_EQ(start(1), 0);
  EXPECT_EQ(states(), States{UNIT_START});
  EXPECT_TRUE(waitUntil([&] { return runners.begun() == 2 && runners.working() == 1; }));
}

TEST_F(UnitControl, CopiesShowTheWholeUnitAndLiveOnWithoutIt) {
  create(1);
  start(1);
  std::vector<KxTranscodeUnit2> copies;
  EXPECT_TRUE(waitUntil([&] { return units()[0].getProgress() == 40; }));
  copies = std::vector<KxTranscodeUnit2>(units());
  manager().unitStop(1LL);
  EXPECT_TRUE(waitUntil([&] {
    manager().checkUnit();
    return units().empty();
  }));
  EXPECT_EQ(copies[0].getState(), UNIT_START);
  EXPECT_EQ(copies[0].getPid(), 4711);
  EXPECT_EQ(copies[0].getTask().param.id, 1);
}

TEST_F(UnitControl, DumpsUnitsBetweenItsLines) {
  create(1);
  log.clear();
  manager().dumpUnit();
  const auto texts = log.texts();
  ASSERT_GE(texts.size(), 3U);
  EXPECT_EQ(texts.front(), "==========dump unit vector=======\n");
  EXPECT_EQ(texts[1], "unit status=1, tid=-1, pid=-1, progress=0\n");
  EXPECT_EQ(texts.back(), "=================\n");
}

TEST_F(UnitControl, SurvivesOperationsFromManyThreadsWhileUnitsAreReaped) {
  const auto client = [](long long id) {
    KxResMgr2& shared = manager();
    for (int round = 0; round < 25; ++round) {
      KxDBTask task = job(id);
      shared.mutexLock();
      shared.createUnit(task);
      shared.unitStart(task);
      if (round % 3 == 0) {
        shared.unitPending(task);
        shared.unitStart(task);
      }
      shared.mutexUnLock();
      shared.mutexLock();
      shared.unitStop(id);
      shared.getUnitVec();
      shared.checkUnit();
      shared.mutexUnLock();
    }
  };
  std::vector<std::thread> clients;
  clients.reserve(4);
  for (long long id : {1, 2, 3, 4}) clients.emplace_back(client, id);
  for (std::thread& one : clients) one.join();
  EXPECT_TRUE(waitUntil([&] {
    manager().checkUnit();
    return units().empty();
  }));
  EXPECT_TRUE(waitUntil([&] { return runners.left() == runners.begun(); }));
}
