#include "AmpCgroup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KxHostPlatform.h"
#include "frame/ChildProcess.h"
#include "resources/CgroupLimits.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using cgrouplimits::automaticMemLimit;
using cgrouplimits::percentOf;
using cgrouplimits::quotaFor;
using kxtest::readFile;
using kxtest::TempDir;
using kxtest::waitUntil;
using kxtest::writeFile;

// A plain folder in the place of /sys/fs/cgroup.
class PlainHierarchy {
 public:
  PlainHierarchy() { AmpCgroup::setMountRoot(m_dir.path().string()); }
  ~PlainHierarchy() { AmpCgroup::setMountRoot(""); }
  PlainHierarchy(const PlainHierarchy&) = delete;
  PlainHierarchy& operator=(const PlainHierarchy&) = delete;

  std::string read(const std::string& file) const { return readFile(m_dir / file); }
  bool has(const std::string& file) const { return fs::exists(m_dir / file); }
  std::string path(const std::string& file) const { return m_dir / file; }
  bool isEmpty() const { return fs::is_empty(m_dir.path()); }

 private:
  TempDir m_dir;
};

std::string quotaText(int percent) {
  return std::to_string(quotaFor(MyUtil_GetCpuNum(), percent));
}

std::string ownThreadId() {
  return std::to_string(syscall(SYS_gettid));
}

TEST(CpuQuota, IsAPercentageOfAllProcessors) {
  EXPECT_EQ(quotaFor(4, 50), 200000);
  EXPECT_EQ(quotaFor(4, 25), 100000);
  EXPECT_EQ(quotaFor(1, 33), 33000);
  EXPECT_EQ(quotaFor(3, 99), 297000);
  EXPECT_EQ(quotaFor(1000, 99), 99000000) << "must not overflow 32 bits on the way";
}

TEST(CpuQuota, HasAFloorOfOnePercentAndACeilingOfEverything) {
  EXPECT_EQ(quotaFor(4, 0), 4000);
  EXPECT_EQ(quotaFor(4, -5), 4000);
  EXPECT_EQ(quotaFor(4, 100), 400000);
  EXPECT_EQ(quotaFor(4, 150), 400000);
}

TEST(CpuQuota, ComesBackAsATruncatedPercentage) {
  const auto roundTrip = [](int percent) {
    return percentOf(static_cast<int32_t>(quotaFor(1, percent)), cgrouplimits::kPeriodUs, 1);
  };
  EXPECT_EQ(roundTrip(25), 25);
  EXPECT_EQ(roundTrip(100), 100);
  EXPECT_EQ(roundTrip(29), 28) << "floating point, cut and not rounded";
  EXPECT_EQ(roundTrip(57), 56);
  EXPECT_EQ(roundTrip(58), 57);
}

TEST(AutomaticMemoryCeiling, FollowsTheWholeGigabytesOfTheMachine) {
  EXPECT_EQ(automaticMemLimit(1048575), 524288);
  EXPECT_EQ(automaticMemLimit(1048576), 1572864);
  EXPECT_EQ(automaticMemLimit(3 * 1048576 - 1), 1572864);
  EXPECT_EQ(automaticMemLimit(3 * 1048576), 2516582);
  EXPECT_EQ(automaticMemLimit(3900000), 3120000);
}

std::vector<std::string> wordsOf(const char* line) {
  cgrouplimits::CommandWords words(line);
  std::vector<std::string> result;
  for (char* const* word = words.argv(); *word != nullptr; ++word) result.emplace_back(*word);
  return result;
}

TEST(CommandWords, ArePartedByBlanksAndKeptTogetherByQuotes) {
  using Words = std::vector<std::string>;
  EXPECT_EQ(wordsOf("  ls  -l /tmp "), (Words{"ls", "-l", "/tmp"}));
  EXPECT_EQ(wordsOf("touch 'a b' \"c d\""), (Words{"touch", "a b", "c d"}));
  EXPECT_EQ(wordsOf("echo '\"' \"'\" ''"), (Words{"echo", "\"", "'", ""}));
  EXPECT_EQ(wordsOf("echo a'b c"), (Words{"echo", "a'b", "c"})) << "only a leading quote counts";
  EXPECT_EQ(wordsOf("echo 'open end"), (Words{"echo", "open end"}));
  EXPECT_EQ(wordsOf(""), Words{});
  EXPECT_EQ(wordsOf(nullptr), Words{});
}

TEST(CommandWords, OfALongLineAreCutAtTheEndOfTheBuffer) {
  EXPECT_EQ(wordsOf(std::string(5000, 'x').c_str()).at(0).size(), 1023U);
  std::string many;
  for (int i = 0; i < 2000; ++i) many += "x ";
  EXPECT_EQ(wordsOf(many.c_str()).size(), 512U);
}

TEST(Cgroup, TouchesNothingBeforeItIsSetUp) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  EXPECT_EQ(group.ampCpuInit("", 50), -1);
  EXPECT_EQ(group.ampMemInit("", 1000), -1);
  EXPECT_EQ(group.setCpuLimiting(50), -1);
  EXPECT_EQ(group.setMemLimiting(1000), -1);
  EXPECT_EQ(group.getCpuLimiting(), -1);
  group.addProcessInCgroup(getpid());
  group.addThreadSelfInCgroup();
  EXPECT_TRUE(hierarchy.isEmpty());
}

TEST(Cgroup, MakesItsFoldersWithEveryMissingParent) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  EXPECT_FALSE(group.isUnified());
  EXPECT_EQ(group.ampCpuInit("service/transcode", 50), 0);
  EXPECT_EQ(group.ampMemInit("service/transcode", 1000), 0);
  EXPECT_EQ(hierarchy.read("cpu/service/transcode/cpu.cfs_period_us"), "100000");
  EXPECT_EQ(hierarchy.read("cpu/service/transcode/cpu.cfs_quota_us"), quotaText(50));
  EXPECT_EQ(hierarchy.read("memory/service/transcode/memory.limit_in_bytes"), "1000k");
}

TEST(Cgroup, WritesTheFloorForZeroAndBelowAndNoLimitFromAHundredOn) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit("g", 25), 0);
  const auto writtenFor = [&](int percent) {
    EXPECT_EQ(group.setCpuLimiting(percent), 0);
    return hierarchy.read("cpu/g/cpu.cfs_quota_us");
  };
  EXPECT_EQ(writtenFor(0), quotaText(1));
  EXPECT_EQ(writtenFor(-5), quotaText(1));
  EXPECT_EQ(group.getCpuLimiting(), 1);
  EXPECT_EQ(writtenFor(99), quotaText(99));
  EXPECT_EQ(writtenFor(100), "-1");
  EXPECT_EQ(group.getCpuLimiting(), 100);
  EXPECT_EQ(writtenFor(150), "-1");
  EXPECT_EQ(group.getCpuLimiting(), 100);
}

TEST(Cgroup, RefusesAMemoryLimitAtOrAboveTheMachinesMemory) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  const int total = MyUtil_GetTotalMem();
  ASSERT_EQ(group.ampMemInit("g", 4096), 0);
  EXPECT_EQ(group.setMemLimiting(total), -1);
  EXPECT_EQ(group.getMemLimiting(), 4096);
  EXPECT_EQ(hierarchy.read("memory/g/memory.limit_in_bytes"), "4096k");
  EXPECT_EQ(group.setMemLimiting(total - 1), 0);
  EXPECT_EQ(group.getMemLimiting(), total - 1);
}

TEST(Cgroup, TakesMinusOneAsNoMemoryLimitAndOtherNegativesAsTheyStand) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampMemInit("g", 4096), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(group.setMemLimiting(-1), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), " size:-1\n");
  EXPECT_EQ(hierarchy.read("memory/g/memory.limit_in_bytes"), "-1");
  EXPECT_EQ(group.getMemLimiting(), MyUtil_GetTotalMem());
  EXPECT_EQ(group.setMemLimiting(-5), 0);
  EXPECT_EQ(hierarchy.read("memory/g/memory.limit_in_bytes"), "-5k");
}

TEST(Cgroup, ChoosesTheMemoryCeilingItselfWhenNoneIsConfigured) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampMemInit("g", -1), 0);
  const int ceiling = automaticMemLimit(MyUtil_GetTotalMem());
  if (ceiling < MyUtil_GetTotalMem()) {
    EXPECT_EQ(group.getMemLimiting(), ceiling);
    EXPECT_EQ(hierarchy.read("memory/g/memory.limit_in_bytes"), std::to_string(ceiling) + "k");
  } else {
    EXPECT_FALSE(hierarchy.has("memory/g/memory.limit_in_bytes"));
  }
}

TEST(Cgroup, IsReadyForMemoryEvenWhenTheFirstLimitIsRefused) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  EXPECT_EQ(group.ampMemInit("g", MyUtil_GetTotalMem()), 0);
  EXPECT_FALSE(hierarchy.has("memory/g/memory.limit_in_bytes"));
  EXPECT_EQ(group.setMemLimiting(1000), 0);
}

TEST(Cgroup, AddsProcessesToTheProcsFilesAndThreadsToTheTasksFiles) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit("g", 50), 0);
  ASSERT_EQ(group.ampMemInit("g", 1000), 0);
  group.addProcessInCgroup(4711);
  std::string runner;
  std::thread([&] {
    runner = ownThreadId();
    group.addThreadSelfInCgroup();
  }).join();
  for (const char* folder : {"cpu/g", "memory/g"}) {
    EXPECT_EQ(hierarchy.read(std::string(folder) + "/cgroup.procs"), "4711");
    EXPECT_EQ(hierarchy.read(std::string(folder) + "/tasks"), runner);
  }
  EXPECT_NE(runner, ownThreadId());
}

TEST(Cgroup, SkipsAControllerWhoseFolderCannotBeMade) {
  PlainHierarchy hierarchy;
  writeFile(hierarchy.path("cpu"), "a file where the folder should be");
  AmpCgroup group;
  testing::internal::CaptureStderr();
  EXPECT_EQ(group.ampCpuInit("g", 50), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(group.ampMemInit("g", 1000), 0);
  testing::internal::CaptureStderr();
  group.addThreadSelfInCgroup();
  group.addProcessInCgroup(4711);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(hierarchy.read("memory/g/tasks"), ownThreadId());
  EXPECT_EQ(hierarchy.read("memory/g/cgroup.procs"), "4711");
  EXPECT_EQ(group.setCpuLimiting(50), -1);
}

TEST(Cgroup, ReportsFilesThatDoNotOpen) {
  PlainHierarchy hierarchy;
  fs::create_directories(hierarchy.path("cpu/g/cpu.cfs_period_us"));
  fs::create_directories(hierarchy.path("memory/g/memory.limit_in_bytes"));
  AmpCgroup group;
  testing::internal::CaptureStderr();
  EXPECT_EQ(group.ampCpuInit("g", 50), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            hierarchy.path("cpu/g/cpu.cfs_period_us") + " open fail\n");
  EXPECT_EQ(group.setCpuLimiting(50), -1) << "without its period the controller is not ready";

  testing::internal::CaptureStderr();
  EXPECT_EQ(group.ampMemInit("g", 1000), 0) << "the folder is there";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            hierarchy.path("memory/g/memory.limit_in_bytes") + " open fail\n");

  fs::remove(hierarchy.path("cpu/g/cpu.cfs_period_us"));
  ASSERT_EQ(group.ampCpuInit("g", 50), 0);
  fs::remove(hierarchy.path("cpu/g/cpu.cfs_quota_us"));
  fs::create_directories(hierarchy.path("cpu/g/cpu.cfs_quota_us"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(group.setCpuLimiting(30), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            hierarchy.path("cpu/g/cpu.cfs_quota_us") + " open fail\n");
}

// The child that forkExecInCgroup() started is known only from the procs file.
int reapAdded(const PlainHierarchy& hierarchy) {
  ChildProcess child = ChildProcess::adopt(std::stoi(hierarchy.read("cpu/g/cgroup.procs")));
  return child.waitFor(20s).value_or(-1);
}

TEST(Cgroup, StartsACommandAndPutsItIntoTheGroup) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit("g", 50), 0);
  const std::string script = "sh -c 'echo \"$0|$1\" > " + hierarchy.path("out") + "' 'a b' c";
  EXPECT_EQ(group.forkExecInCgroup(script.c_str()), 0);
  EXPECT_EQ(reapAdded(hierarchy), 0);
  EXPECT_EQ(hierarchy.read("out"), "a b|c\n") << "quotes keep words together and are removed";
  EXPECT_EQ(group.forkExecInCgroup("/no/such/program"), 0);
  EXPECT_EQ(WEXITSTATUS(reapAdded(hierarchy)), 127);
  EXPECT_EQ(group.forkExecInCgroup(""), 0);
  EXPECT_EQ(WEXITSTATUS(reapAdded(hierarchy)), 127);
}

TEST(Cgroup, TakesLimitChangesAndNewThreadsAtTheSameTime) {
  PlainHierarchy hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit("g", 50), 0);
  ASSERT_EQ(group.ampMemInit("g", 1000), 0);
  testing::internal::CaptureStdout();
  const auto change = [&group](int thread) {
    for (int i = 1; i <= 25; ++i) {
      group.addThreadSelfInCgroup();
      group.setCpuLimiting(thread * 25 + i);
      group.setMemLimiting(1000 + i);
      group.getCpuLimiting();
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) threads.emplace_back(change, t);
  for (std::thread& thread : threads) thread.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(group.getMemLimiting(), 1025);
}

// A plain folder that looks like the unified hierarchy.
class PlainUnified : public PlainHierarchy {
 public:
  PlainUnified() { writeFile(path("cgroup.controllers"), "cpu memory\n"); }
};

TEST(UnifiedCgroup, TakesBothLimitsInOneFolder) {
  PlainUnified hierarchy;
  AmpCgroup group;
  EXPECT_TRUE(group.isUnified());
  ASSERT_EQ(group.ampCpuInit("g", 50), 0);
  EXPECT_EQ(hierarchy.read("cgroup.subtree_control"), "+cpu");
  ASSERT_EQ(group.ampMemInit("g", 1000), 0);
  EXPECT_EQ(hierarchy.read("cgroup.subtree_control"), "+memory");
  EXPECT_EQ(hierarchy.read("g/cpu.max"), quotaText(50) + " 100000");
  EXPECT_EQ(hierarchy.read("g/memory.max"), "1000k");
  EXPECT_EQ(group.setCpuLimiting(100), 0);
  EXPECT_EQ(group.setMemLimiting(-1), 0);
  EXPECT_EQ(hierarchy.read("g/cpu.max"), "max 100000");
  EXPECT_EQ(hierarchy.read("g/memory.max"), "max");
  EXPECT_EQ(group.getCpuLimiting(), 100);
  EXPECT_FALSE(hierarchy.has("cpu"));
  EXPECT_FALSE(hierarchy.has("memory"));
}

TEST(UnifiedCgroup, EnablesTheControllersInTheFolderAboveTheGroup) {
  PlainUnified hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit("service/transcode", 50), 0);
  EXPECT_EQ(hierarchy.read("service/cgroup.subtree_control"), "+cpu");
}

TEST(UnifiedCgroup, TakesChildrenOnceAndNoSingleThreads) {
  PlainUnified hierarchy;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit("g", 50), 0);
  ASSERT_EQ(group.ampMemInit("g", 1000), 0);
  group.addThreadSelfInCgroup();
  EXPECT_FALSE(hierarchy.has("g/tasks"));
  EXPECT_FALSE(hierarchy.has("g/cgroup.procs"));
  group.addProcessInCgroup(4711);
  EXPECT_EQ(hierarchy.read("g/cgroup.procs"), "4711");
}

// A control group of the running kernel with a name of its own, removed afterwards.
class KernelGroup {
 public:
  KernelGroup() : m_name("kxtest." + std::to_string(getpid())) {}
  ~KernelGroup() {
    for (const char* controller : {"cpu", "memory"}) {
      const std::string folder = this->folder(controller);
      waitUntil([&] { return rmdir(folder.c_str()) == 0 || errno == ENOENT; }, 5s);
    }
  }
  KernelGroup(const KernelGroup&) = delete;
  KernelGroup& operator=(const KernelGroup&) = delete;

  static bool isUsable() {
    static constexpr long kCgroupMagic = 0x27e0eb;
    for (const char* path : {"/sys/fs/cgroup/cpu", "/sys/fs/cgroup/memory"}) {
      struct statfs info {};
      if (statfs(path, &info) != 0 || info.f_type != kCgroupMagic) return false;
      if (access(path, W_OK) != 0) return false;
    }
    return geteuid() == 0;
  }
  const std::string& name() const { return m_name; }
  std::string folder(const std::string& controller) const {
    return "/sys/fs/cgroup/" + controller + "/" + m_name;
  }

 private:
  std::string m_name;
};

// Processor time that a process has used, in seconds.
double cpuSeconds(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

TEST(KernelCgroup, HoldsABusyChildToAQuarterOfAllProcessors) {
  if (!KernelGroup::isUsable()) GTEST_SKIP() << "needs root and mounted cgroup v1 controllers";
  KernelGroup kernel;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit(kernel.name(), 25), 0);
  // However busy the machine is with other things, the group gets what it may have.
  writeFile(kernel.folder("cpu") + "/cpu.shares", "100000");
  // One busy loop for each processor would use all of them.
  std::vector<ChildProcess> busy;
  const int count = MyUtil_GetCpuNum();
  for (int i = 0; i < count; ++i) {
    busy.push_back(ChildProcess::spawn({"sh", "-c", "while :; do :; done"}, {}));
    group.addProcessInCgroup(busy.back().pid());
  }
  const auto begin = std::chrono::steady_clock::now();
  const auto used = [&] {
    double sum = 0;
    for (const ChildProcess& child : busy) sum += cpuSeconds(child.pid());
    return sum;
  };
  const double before = used();
  ASSERT_TRUE(waitUntil([&] { return used() - before >= 0.25 * count; }, 60s));
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
  // A period may be begun with a full quota at either end.
  const double allowed = 0.25 * count * (wall.count() + 0.2);
  EXPECT_LE(used() - before, allowed + 0.05);
  const auto hasReachedTheLimit = [&] {
    const std::string facts = readFile(kernel.folder("cpu") + "/cpu.stat");
    return facts.find("nr_throttled") != std::string::npos &&
           facts.find("nr_throttled 0\n") == std::string::npos;
  };
  EXPECT_TRUE(waitUntil(hasReachedTheLimit)) << "nothing was tested";
}

TEST(KernelCgroup, ReadsBackTheMemoryLimit) {
  if (!KernelGroup::isUsable()) GTEST_SKIP() << "needs root and mounted cgroup v1 controllers";
  KernelGroup kernel;
  AmpCgroup group;
  ASSERT_EQ(group.ampMemInit(kernel.name(), 65536), 0);
  EXPECT_EQ(readFile(kernel.folder("memory") + "/memory.limit_in_bytes"), "67108864\n");
  ASSERT_EQ(group.setMemLimiting(-1), 0);
  EXPECT_GT(std::stoll(readFile(kernel.folder("memory") + "/memory.limit_in_bytes")), 1LL << 50);
}

TEST(KernelCgroup, ConfinesOneThreadAndWhatItStartsButNotTheOthers) {
  if (!KernelGroup::isUsable()) GTEST_SKIP() << "needs root and mounted cgroup v1 controllers";
  KernelGroup kernel;
  AmpCgroup group;
  ASSERT_EQ(group.ampCpuInit(kernel.name(), 50), 0);
  ASSERT_EQ(group.ampMemInit(kernel.name(), 65536), 0);
  std::thread([&] {
    group.addThreadSelfInCgroup();
    EXPECT_EQ(readFile(kernel.folder("cpu") + "/tasks"), ownThreadId() + "\n");
    const ChildProcess child = ChildProcess::spawn({"sleep", "60"}, {});
    const std::string pid = std::to_string(child.pid());
    for (const char* controller : {"cpu", "memory"}) {
      EXPECT_THAT(readFile(kernel.folder(controller) + "/cgroup.procs"),
                  testing::HasSubstr(pid + "\n"));
    }
  }).join();
  EXPECT_TRUE(waitUntil([&] { return readFile(kernel.folder("cpu") + "/tasks").empty(); }));
}

}  // namespace
