#include "KxResMgr2.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <thread>

#include "KxHostPlatform.h"
#include "frame/ChildProcess.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"
#include "tests/resources/ResourceFixtures.h"

using kxtest::FakeAccelerator;
using kxtest::job;
using kxtest::PrivateRoot;
using kxtest::processRegistration;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::unitRegistration;

namespace {

using Ids = std::vector<std::string>;

Ids idsOf(const std::vector<KxResource2>& resources) {
  Ids ids;
  for (const KxResource2& one : resources) ids.push_back(one.id);
  return ids;
}

// Each test runs in a process of its own, so each has a manager of its own.
class KxResMgr2Test : public testing::Test {
 public:
  KxResMgr2Test() {
    AmpCgroup::setMountRoot(mount / "cgroup");
    setPlatform("X86_GENERIC");
  }
  ~KxResMgr2Test() override { AmpCgroup::setMountRoot("/sys/fs/cgroup"); }

 protected:
  void setPlatform(const std::string& name) {
    root.write("/etc/platform.conf", "Platform = " + name + "\n");
  }
  static KxResMgr2& manager() { return *KxResMgr2::getInstance(); }
  // The list without a look at the tool.
  std::vector<KxResource2> known() {
    const size_t before = log.texts().size();
    manager().dumpRes();
    const auto texts = log.texts();
    std::vector<KxResource2> found;
    for (size_t i = before; i < texts.size(); ++i) {
      const std::string& text = texts[i];
      const std::string key = "isEmpty=false, id=";
      if (text.rfind(key, 0) != 0) continue;
      KxResource2 one;
      one.id = text.substr(key.size(), text.find(',', key.size()) - key.size());
      found.push_back(one);
    }
    return found;
  }
  std::string cgroupFile(const std::string& name) { return mount / ("cgroup/" + name); }

  RecordingLog log;
  TempDir mount;
  PrivateRoot root;
  FakeAccelerator accel{root};
};

}  // namespace

TEST_F(KxResMgr2Test, InitRefusesAnEmptyGroupName) {
  EXPECT_EQ(manager().init(""), 1);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "invaild cGroup name;"));
  EXPECT_TRUE(known().empty());
  EXPECT_EQ(accel.calls("-l"), 0U);
}

TEST_F(KxResMgr2Test, ASecondInitAddsTheBuiltInResourcesAgain) {
  accel.setCards({"gpu0"});
  EXPECT_EQ(manager().init("kx"), 0);
  EXPECT_EQ(manager().init("kx"), 0);
  EXPECT_EQ(idsOf(manager().getResVec()), (Ids{"sw_cpu", "gpu0", "sw_cpu"}));
}

TEST_F(KxResMgr2Test, EveryMessageNamesItsOperation) {
  EXPECT_EQ(manager().init(""), 1);
  accel.setCards({"gpu0"});
  ASSERT_EQ(manager().init("kx"), 0);
  accel.setCards({});
  manager().getResVec();
  KxRegister empty;
  manager().regRes(empty);
  manager().cGroupSetCpuLimit(50);
  std::filesystem::remove(accel.path());
  manager().getResVec();
  manager().dump();
  const std::pair<const char*, const char*> wanted[] = {
      {"invaild cGroup name;", "init"},
      {"accelctl -q output:", "checkRes"},
      {"status:", "checkRes"},
      {"res info:", "checkRes"},
      {"detect new dev, add it to resource vector\n", "checkRes"},
      {"cpuLimit=", "init"},
      {"memLimit=", "init"},
      {"remove non-existed device from resource vector\n", "checkRes"},
      {"reg is empty\n", "regRes"},
      {"path ", "checkRes"},
      {"check resource fail", "getResVec"},
      {"========dump resource vector=========\n", "dumpRes"},
      {"==========dump unit vector=======\n", "dumpUnit"}};
  const auto lines = log.lines();
  auto from = lines.begin();
  for (const auto& [text, function] : wanted) {
    from = std::find_if(from, lines.end(), [start = text](const auto& line) {
      return line.text.rfind(start, 0) == 0;
    });
    ASSERT_NE(from, lines.end()) << text;
    EXPECT_EQ(from->func, function) << text;
    EXPECT_EQ(from->source, "KxResMgr2") << text;
    EXPECT_EQ(from->level, 5) << text;
  }
}

TEST_F(KxResMgr2Test, TheTryLockAnswersWithTheThreadsErrno) {
  KxResMgr2& one = manager();
  errno = 0;
  EXPECT_EQ(one.mutexTryLock(), 0);
  EXPECT_FALSE(log.has("ResMgr trylock mutex fail\n"));
  EXPECT_EQ(one.mutexUnLock(), 0);
  errno = ENOENT;
  EXPECT_EQ(one.mutexTryLock(), ENOENT);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "ResMgr trylock mutex fail\n"));
  EXPECT_EQ(one.mutexUnLock(), 0);
}

TEST_F(KxResMgr2Test, ListsTheSoftwareResourceThenTheCards) {
  accel.setCards({"gpu0", "gpu1"});
  EXPECT_EQ(manager().init("kx"), 0);
  const auto resources = manager().getResVec();
  EXPECT_EQ(idsOf(resources), (Ids{"sw_cpu", "gpu0", "gpu1"}));
  EXPECT_EQ(resources[0].resType, RES2_SW_CPU);
  EXPECT_EQ(resources[0].vendorName + resources[0].devName + resources[0].devNumber, "");
  EXPECT_EQ(resources[0].modeSupport, 0);
  EXPECT_EQ(log.count("detect new dev, add it to resource vector\n"), 2U);
}

TEST_F(KxResMgr2Test, TheFirstOnChipEngineComesBeforeTheCards) {
  setPlatform("ARM_RTK");
  accel.setCards({"gpu0"});
  EXPECT_EQ(manager().init("kx"), 0);
  const auto resources = manager().getResVec();
  EXPECT_EQ(idsOf(resources), (Ids{"sw_cpu", "arm.rtk", "gpu0"}));
  EXPECT_EQ(resources[1].resType, RES2_ARM_RTK);
}

TEST_F(KxResMgr2Test, TheSecondOnChipEngineComesBeforeTheCards) {
  setPlatform("ARM_RK3399");
  accel.setCards({"gpu0"});
  EXPECT_EQ(manager().init("kx"), 0);
  const auto resources = manager().getResVec();
  EXPECT_EQ(idsOf(resources), (Ids{"sw_cpu", "arm.rk", "gpu0"}));
  EXPECT_EQ(resources[1].resType, RES2_ARM_RK);
}

TEST_F(KxResMgr2Test, WithoutTheToolOnlyTheBuiltInResourcesExistAndNobodyGetsThem) {
  std::filesystem::remove(accel.path());
  EXPECT_EQ(manager().init("kx"), 1);
  EXPECT_TRUE(log.has("path " + accel.path() + " do not exist\n"));
  EXPECT_TRUE(log.has(5, "KxResMgr2", "check resource fail\n"));
  EXPECT_FALSE(log.hasPart("cpuLimit="));
  EXPECT_FALSE(std::filesystem::exists(mount / "cgroup"));
  EXPECT_EQ(idsOf(known()), Ids{"sw_cpu"});
  EXPECT_TRUE(manager().getResVec().empty());
  EXPECT_TRUE(log.has(5, "KxResMgr2", "check resource fail"));
  EXPECT_EQ(manager().checkRes(), 1);
  // The failed look left the manager unlocked.
  EXPECT_EQ(manager().mutexLock(), 0);
  EXPECT_EQ(manager().mutexUnLock(), 0);
}

TEST_F(KxResMgr2Test, InitFailsWhenTheGroupCannotBeMadeButTheResourcesExist) {
  kxtest::writeFile(mount / "cgroup", "a file where a folder is needed");
  accel.setCards({"gpu0"});
  EXPECT_EQ(manager().init("kx"), 1);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "Cgroup cpu init fail\n"));
  EXPECT_EQ(idsOf(manager().getResVec()), (Ids{"sw_cpu", "gpu0"}));
}

TEST_F(KxResMgr2Test, InitSaysWhenOnlyTheMemoryGroupFails) {
  std::filesystem::create_directories(mount / "cgroup");
  kxtest::writeFile(cgroupFile("memory"), "");
  EXPECT_EQ(manager().init("kx"), 1);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "Cgroup memory init fail\n"));
  EXPECT_FALSE(log.has("Cgroup cpu init fail\n"));
}

TEST_F(KxResMgr2Test, ReadsTheLimitsFromTheConfiguration) {
  root.write("/etc/config/medialibrary.conf",
             "[TRANSCODESVR]\nCPU_LIMIT = 25\nMEM_LIMIT = 262144\n");
  EXPECT_EQ(manager().init("kx"), 0);
  EXPECT_TRUE(log.has(5, "KxResMgr2", "cpuLimit=25\n"));
  EXPECT_TRUE(log.has(5, "KxResMgr2", "memLimit=262144\n"));
  EXPECT_EQ(manager().cGroupGetCpuLimit(), 25);
  EXPECT_EQ(manager().cGroupGetMemLimit(), 262144);
  EXPECT_EQ(kxtest::readFile(cgroupFile("memory/kx/memory.limit_in_bytes")), "262144k");
}

TEST_F(KxResMgr2Test, HalfTheProcessorsAreTheDefault) {
  EXPECT_EQ(manager().init("kx"), 0);
  EXPECT_TRUE(log.has("cpuLimit=50\n"));
  EXPECT_TRUE(log.has("memLimit=-1\n"));
  EXPECT_EQ(manager().cGroupGetCpuLimit(), 50);
}

TEST_F(KxResMgr2Test, StoresALimitAndAppliesIt) {
  ASSERT_EQ(manager().init("kx"), 0);
  const std::string file = root.file("/etc/config/medialibrary.conf");
  EXPECT_EQ(manager().cGroupSetCpuLimit(75), 0);
  EXPECT_EQ(manager().cGroupSetMemLimit(131072), 0);
  EXPECT_EQ(MyUtil_GetKeyInt("TRANSCODESVR", "CPU_LIMIT", 0, file.c_str()), 75);
  EXPECT_EQ(MyUtil_GetKeyInt("TRANSCODESVR", "MEM_LIMIT", 0, file.c_str()), 131072);
  EXPECT_EQ(manager().cGroupGetCpuLimit(), 75);
  EXPECT_EQ(kxtest::readFile(cgroupFile("memory/kx/memory.limit_in_bytes")), "131072k");
}

TEST_F(KxResMgr2Test, AppliesALimitThatCannotBeStored) {
  ASSERT_EQ(manager().init("kx"), 0);
  std::filesystem::remove_all(root.path() + "/etc/config");
  kxtest::writeFile(root.path() + "/etc/config", "not a folder");
  EXPECT_EQ(manager().cGroupSetCpuLimit(75), 0);
  EXPECT_TRUE(
      log.has(5, "KxResMgr2",
              "set CPU_LIMIT=75 to " + root.path() + "/etc/config/medialibrary.conf fail\n"));
  EXPECT_EQ(manager().cGroupGetCpuLimit(), 75);
}

TEST_F(KxResMgr2Test, MinusOneAsMemoryLimitIsTheAutomaticCeiling) {
  ASSERT_EQ(manager().init("kx"), 0);
  const int automatic = manager().cGroupGetMemLimit();
  const std::string written = kxtest::readFile(cgroupFile("memory/kx/memory.limit_in_bytes"));
  ASSERT_EQ(manager().cGroupSetMemLimit(131072), 0);
  EXPECT_EQ(manager().cGroupSetMemLimit(-1), 0);
  EXPECT_EQ(manager().cGroupGetMemLimit(), automatic);
  EXPECT_EQ(kxtest::readFile(cgroupFile("memory/kx/memory.limit_in_bytes")), written);
  EXPECT_NE(written, "-1");
  EXPECT_LT(automatic, MyUtil_GetTotalMem());
}

TEST_F(KxResMgr2Test, AddsProcessesAndThreadsToTheGroup) {
  ASSERT_EQ(manager().init("kx"), 0);
  manager().cGroupAddPid(4711);
  manager().cGroupAddSelfThread();
  EXPECT_EQ(kxtest::readFile(cgroupFile("cpu/kx/cgroup.procs")), "4711");
  EXPECT_EQ(kxtest::readFile(cgroupFile("memory/kx/tasks")), std::to_string(gettid()));
}

TEST_F(KxResMgr2Test, ACountOfZeroRemovesEveryCard) {
  accel.setCards({"gpu0", "gpu1"});
  ASSERT_EQ(manager().init("kx"), 0);
  accel.answer("-q", "count=0\n");
  EXPECT_EQ(idsOf(manager().getResVec()), Ids{"sw_cpu"});
  EXPECT_EQ(log.count("remove non-existed device from resource vector\n"), 2U);
}

TEST_F(KxResMgr2Test, AVanishedCardGoesAndTheOthersKeepPlaceAndRegistrations) {
  accel.setCards({"gpu0", "gpu1", "gpu2"});
  ASSERT_EQ(manager().init("kx"), 0);
  KxRegister stays = unitRegistration("gpu2", RES2_GPU_INTERNAL, job(1));
  KxRegister goes = unitRegistration("gpu1", RES2_GPU_INTERNAL, job(2));
  ASSERT_EQ(manager().regRes(stays), 0);
  ASSERT_EQ(manager().regRes(goes), 0);
  accel.setCards({"gpu3", "gpu2", "gpu0"});
  const auto resources = manager().getResVec();
  EXPECT_EQ(idsOf(resources), (Ids{"sw_cpu", "gpu0", "gpu2", "gpu3"}));
  EXPECT_EQ(resources[2].reg.size(), 1U);
  EXPECT_EQ(manager().unRegRes(goes), 1);
}

TEST_F(KxResMgr2Test, AFailedLookLeavesTheListAlone) {
  accel.setCards({"gpu0"});
  ASSERT_EQ(manager().init("kx"), 0);
  for (const char* text : {"nonsense\n", "count=x\n", ""}) {
    accel.answer("-q", text);
    EXPECT_EQ(manager().checkRes(), 1);
    EXPECT_EQ(idsOf(known()), (Ids{"sw_cpu", "gpu0"}));
  }
}

TEST_F(KxResMgr2Test, CallersAtTheSameTimeShareOneLook) {
  accel.setCards({"gpu0"});
  ASSERT_EQ(manager().init("kx"), 0);
  const size_t before = accel.calls("-l");
  accel.hold("-s gpu0");
  std::vector<std::thread> callers;
  std::atomic<int> served{0};
  callers.reserve(6);
  for (int i = 0; i < 6; ++i)
    callers.emplace_back([&] { served += manager().getResVec().size() == 2 ? 1 : 0; });
  ASSERT_TRUE(kxtest::waitUntil([&] { return accel.running("-s gpu0") == 1; }));
  // The tool is at work, and the manager's lock is free all the same.
  EXPECT_EQ(manager().mutexLock(), 0);
  EXPECT_EQ(manager().mutexUnLock(), 0);
  accel.release("-s gpu0");
  std::filesystem::remove(root.file("/accel/hold -s gpu0"));
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(served, 6);
  EXPECT_LT(accel.calls("-l") - before, 6U);
  const size_t shared = accel.calls("-l");
  manager().getResVec();
  EXPECT_EQ(accel.calls("-l"), shared + 1) << "a look must not be kept";
}

namespace {

// A caller whose work can be ended, as that of a unit's thread.
class StoppableCaller {
 public:
  explicit StoppableCaller(KxResMgr2& manager)
      : m_thread([this, &manager] {
          const StopSignal stop(m_end.get());
          m_found = manager.getResVec().size();
        }) {}
  void stop() const { eventfd_write(m_end.get(), 1); }
  size_t found() {
    m_thread.join();
    return m_found;
  }

 private:
  const UniqueFd m_end{eventfd(0, EFD_CLOEXEC)};
  size_t m_found = 99;
  std::thread m_thread;
};

}  // namespace

TEST_F(KxResMgr2Test, ACallerThatIsStoppedDoesNotWaitForAHangingTool) {
  accel.setCards({"gpu0"});
  ASSERT_EQ(manager().init("kx"), 0);
  accel.hold("-l");
  StoppableCaller caller(manager());
  ASSERT_TRUE(kxtest::waitUntil([&] { return accel.running("-l") == 1; }));
  const auto asked = std::chrono::steady_clock::now();
  caller.stop();
  EXPECT_EQ(caller.found(), 0U);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
  // Nobody waits for the tool any more.
  EXPECT_TRUE(
      kxtest::waitUntil([] { return kxtest::childPrograms().empty(); }, std::chrono::seconds(2)));
  EXPECT_EQ(idsOf(known()), (Ids{"sw_cpu", "gpu0"}));
  std::filesystem::remove(root.file("/accel/hold -l"));
  EXPECT_EQ(idsOf(manager().getResVec()), (Ids{"sw_cpu", "gpu0"}));
}

TEST_F(KxResMgr2Test, ACallerThatIsStoppedLeavesTheLookToTheOthers) {
  accel.setCards({"gpu0"});
  ASSERT_EQ(manager().init("kx"), 0);
  const size_t before = accel.calls("-l");
  accel.hold("-l");
  StoppableCaller stays(manager());
  ASSERT_TRUE(kxtest::waitUntil([&] { return accel.running("-l") == 1; }));
  StoppableCaller leaves(manager());
  leaves.stop();
  EXPECT_EQ(leaves.found(), 0U);
  accel.release("-l");
  EXPECT_EQ(stays.found(), 2U);
  EXPECT_EQ(accel.calls("-l"), before + 1);
}

TEST_F(KxResMgr2Test, RegistersOnKnownResourcesOnly) {
  ASSERT_EQ(manager().init("kx"), 0);
  KxRegister unknown = unitRegistration("gpu9", RES2_GPU_INTERNAL, job(1));
  EXPECT_EQ(manager().regRes(unknown), 1);
  EXPECT_EQ(manager().unRegRes(unknown), 1);
  KxRegister empty;
  EXPECT_EQ(manager().regRes(empty), 1);
  EXPECT_EQ(manager().unRegRes(empty), 1);
  EXPECT_EQ(log.count("reg is empty\n"), 2U);
  EXPECT_TRUE(manager().getResVec()[0].reg.empty());
  KxRegister good = unitRegistration("sw_cpu", RES2_SW_CPU, job(1));
  EXPECT_EQ(manager().regRes(good), 0);
  EXPECT_EQ(manager().getResVec()[0].reg.size(), 1U);
  EXPECT_EQ(manager().unRegRes(good), 0);
  EXPECT_EQ(manager().unRegRes(good), 0);
  EXPECT_TRUE(manager().getResVec()[0].reg.empty());
}

TEST_F(KxResMgr2Test, DropsTheRegistrationsOfDeadProcesses) {
  accel.setCards({"gpu0"});
  ASSERT_EQ(manager().init("kx"), 0);
  ChildProcess child = ChildProcess::spawn({"/bin/true"}, {});
  ASSERT_TRUE(child.valid());
  const int dead = child.pid();
  child.wait();
  for (const char* id : {"sw_cpu", "gpu0", "gpu0"}) {
    KxRegister reg = processRegistration(id, RES2_SW_CPU, dead);
    ASSERT_EQ(manager().regRes(reg), 0);
  }
  KxRegister alive = processRegistration("gpu0", RES2_GPU_INTERNAL, getpid());
  KxRegister unit = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(1));
  ASSERT_EQ(manager().regRes(alive), 0);
  ASSERT_EQ(manager().regRes(unit), 0);
  EXPECT_EQ(manager().checkRegInfo(), 0);
  EXPECT_EQ(
      log.count("/proc/" + std::to_string(dead) + "/ is not exist, so we remove it from RegInfo\n"),
      2U);
  const auto resources = manager().getResVec();
  EXPECT_TRUE(resources[0].reg.empty());
  ASSERT_EQ(resources[1].reg.size(), 2U);
  EXPECT_EQ(resources[1].reg[0].m_pid, getpid());
  EXPECT_EQ(resources[1].reg[1].m_pid, -1);
}

TEST_F(KxResMgr2Test, DeadProcessesGoInTheOrderOfTheirRegistrations) {
  ASSERT_EQ(manager().init("kx"), 0);
  std::vector<int> dead;
  for (int i = 0; i < 2; ++i) {
    ChildProcess child = ChildProcess::spawn({"/bin/true"}, {});
    ASSERT_TRUE(child.valid());
    dead.push_back(child.pid());
    child.wait();
  }
  std::sort(dead.rbegin(), dead.rend());
  for (const int pid : {dead[0], dead[1], dead[0]}) {
    KxRegister reg = processRegistration("sw_cpu", RES2_SW_CPU, pid);
    ASSERT_EQ(manager().regRes(reg), 0);
  }
  log.clear();
  EXPECT_EQ(manager().checkRegInfo(), 0);
  std::vector<std::string> expected;
  expected.reserve(dead.size());
  for (const int pid : dead) {
    expected.push_back("/proc/" + std::to_string(pid) +
                       "/ is not exist, so we remove it from RegInfo\n");
  }
  EXPECT_EQ(log.texts(), expected);
  EXPECT_TRUE(manager().getResVec()[0].reg.empty());
}

TEST_F(KxResMgr2Test, TheCopiesItHandsOutAreTheCallersOwn) {
  ASSERT_EQ(manager().init("kx"), 0);
  auto copy = manager().getResVec();
  copy[0].id = "changed";
  copy.clear();
  EXPECT_EQ(idsOf(manager().getResVec()), Ids{"sw_cpu"});
}

TEST_F(KxResMgr2Test, DumpsResourcesBetweenItsLines) {
  ASSERT_EQ(manager().init("kx"), 0);
  log.clear();
  manager().dump();
  const auto texts = log.texts();
  ASSERT_EQ(texts.size(), 6U);
  EXPECT_EQ(texts[0], "========dump resource vector=========\n");
  EXPECT_EQ(texts[1], "---KxResource2:\n");
  EXPECT_EQ(texts[3], "=================\n");
  EXPECT_EQ(texts[4], "==========dump unit vector=======\n");
  EXPECT_EQ(texts[5], "=================\n");
}

TEST(ResourcePriority, HardwareComesFirstThenTheLeastUsed) {
  const auto resource = [](const char* id, int type, size_t registrations) {
    KxResource2 one;
    one.id = id;
    one.resType = static_cast<KxRes2_e>(type);
    one.reg.resize(registrations);
    return one;
  };
  EXPECT_EQ(idsOf(getPriorityResVec(
                {resource("sw_cpu", 1, 0), resource("A", 2, 2), resource("arm.rtk", 4, 1)})),
            (Ids{"arm.rtk", "A", "sw_cpu"}));
  // Types outside 2..5 are not hardware, however used they are.
  EXPECT_EQ(
      idsOf(getPriorityResVec({resource("six", 6, 1), resource("none", 0, 0), resource("rk", 5, 9),
                               resource("minus", -1, 2), resource("ext", 3, 8)})),
      (Ids{"ext", "rk", "none", "six", "minus"}));
  EXPECT_TRUE(getPriorityResVec({}).empty());
}
