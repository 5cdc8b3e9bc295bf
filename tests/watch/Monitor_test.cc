#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "KxTransFileScanner.h"
#include "KxTransNotifyAgent.h"
#include "frame/ChildProcess.h"
#include "tests/watch/WatchWorld.h"

namespace fs = std::filesystem;
using kxtest::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Monitor : public WatchWorld {
 protected:
  void SetUp() override { initMonitor(); }

  std::vector<std::string> folders() const {
    std::vector<std::string> texts;
    KxTransFileSetting setting;
    for (unsigned int i = 0; monitor->getFolder(i, setting) == 0; ++i)
      texts.push_back(below(setting.getFilePath()) + ":" + setting.getTarget());
    EXPECT_EQ(texts.size(), static_cast<size_t>(monitor->getFolderSize()));
    return texts;
  }
  bool isScanned() const {
    return waitUntil([this] {
      const KxWatchStatus status = monitor->getWatchStatus();
      return status.queuedScans == 0 && status.scanning.empty();
    });
  }
};

// A process that looks like another program in the list of processes, and does nothing.
class Idler {
 public:
  explicit Idler(const std::string& looks)
      : m_child(ChildProcess::spawn({"/bin/bash", "-c", "exec -a '" + looks + "' sleep 60"}, {})) {
    const std::string line = "/proc/" + std::to_string(m_child.pid()) + "/cmdline";
    EXPECT_TRUE(waitUntil([&] { return kxtest::readFile(line).find(looks) == 0; }));
  }
  int pid() const { return m_child.pid(); }
  bool hasEnded() { return m_child.poll().has_value(); }

 private:
  ChildProcess m_child;
};

}  // namespace

TEST_F(Monitor, AddsWatchesAndScansAFolder) {
  video("a/x.mp4");
  ASSERT_EQ(monitor->startAll(), 0);
  EXPECT_EQ(monitor->addFolder(media("a"), "4"), 0);
  EXPECT_TRUE(settles({"a/x.mp4:4"}));
  EXPECT_THAT(folders(), ElementsAre("a:4"));
  EXPECT_EQ(monitor->getWatchStatus().folders.at(0).state, WATCH_ON);
  video("a/y.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/y.mp4:4"}));
  EXPECT_EQ(monitor->addFolder(media("a"), "8"), 1) << "it is there already";
  EXPECT_EQ(monitor->addFolder(media("a") + "/", "8"), 1);
}

TEST_F(Monitor, OnlyARealFolderCanBeAdded) {
  video("file.mp4");
  fs::create_directory_symlink(folder("real"), media("link"));
  EXPECT_EQ(monitor->addFolder(media("file.mp4"), "4"), 1);
  EXPECT_EQ(monitor->addFolder(media("link"), "4"), 1);
  EXPECT_EQ(monitor->addFolder(media("link") + "/", "4"), 1);
  EXPECT_EQ(monitor->addFolder(media("absent"), "4"), 1);
  EXPECT_EQ(monitor->addFolder("", "4"), 1);
  EXPECT_THAT(folders(), IsEmpty());
  EXPECT_FALSE(KxTransFileScanner::getInstance()->getStatus());
}

TEST_F(Monitor, AddingAFolderStartsAStoppedScanner) {
  video("a/x.mp4");
  EXPECT_EQ(monitor->addFolder(media("a"), "4"), 0);
  EXPECT_TRUE(KxTransFileScanner::getInstance()->getStatus());
  EXPECT_TRUE(settles({"a/x.mp4:4"}));
  EXPECT_EQ(monitor->getWatchStatus().folders.at(0).state, WATCH_OFF);
}

TEST_F(Monitor, StartingTwiceIsRefusedWithAMessage) {
  EXPECT_EQ(monitor->startScanner(), 0);
  EXPECT_EQ(monitor->startNotify(), 0);
  EXPECT_EQ(monitor->startScanner(), 1);
  EXPECT_TRUE(
      log.has(5, "KxTransFileMonitor", "scanner is already running, do not running it again\n"));
  EXPECT_EQ(monitor->startNotify(), 1);
  EXPECT_TRUE(
      log.has(5, "KxTransFileMonitor", "notify is already running, do not running it again\n"));
  EXPECT_EQ(monitor->startAll(), 1);
  EXPECT_EQ(monitor->stopAll(), 0);
  EXPECT_EQ(monitor->stopScanner(), 0) << "nothing to stop is no failure";
  EXPECT_EQ(monitor->stopNotify(), 0);
  EXPECT_EQ(monitor->startAll(), 0);
}

TEST_F(Monitor, AnotherTargetQueuesTheFilesAgain) {
  video("a/x.mp4");
  ASSERT_EQ(monitor->startAll(), 0);
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  ASSERT_TRUE(settles({"a/x.mp4:4"}));
  ASSERT_TRUE(isScanned());
  deleteAllJobs();
  EXPECT_EQ(monitor->updateFolder(media("a") + "/", "8"), 0);
  EXPECT_TRUE(settles({"a/x.mp4:8"}));
  EXPECT_THAT(folders(), ElementsAre("a:8"));
}

TEST_F(Monitor, OnlyAFolderOfTheListItselfCanBeUpdatedOrDeleted) {
  video("a/sub/x.mp4");
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  ASSERT_TRUE(settles({"a/sub/x.mp4:4"}));
  for (const std::string& path : {media("a/sub"), std::string("/"), std::string(""), media("b")}) {
    EXPECT_EQ(monitor->updateFolder(path, "8"), 1) << path;
    EXPECT_EQ(monitor->delFolder(path), 1) << path;
  }
  EXPECT_THAT(folders(), ElementsAre("a:4"));
  EXPECT_TRUE(settles({"a/sub/x.mp4:4"}));
}

TEST_F(Monitor, DeletingAFolderLeavesNoJobNoRecordAndNoWatch) {
  video("a/x.mp4");
  video("a/sub/y.mp4");
  video("ab/z.mp4");
  ASSERT_EQ(monitor->startAll(), 0);
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  ASSERT_EQ(monitor->addFolder(media("ab"), "8"), 0);
  ASSERT_TRUE(settles({"a/x.mp4:4", "a/sub/y.mp4:4", "ab/z.mp4:8"}));
  {
    const StoreGuard lock;
    store->exec("UPDATE JobTable SET Status = 1, InsertType = 1 WHERE SrcPath LIKE '%y.mp4'");
  }
  EXPECT_EQ(monitor->delFolder(media("a")), 0);
  EXPECT_TRUE(settles({"ab/z.mp4:8"}));
  EXPECT_THAT(folders(), ElementsAre("ab:8"));
  video("a/later.mp4");
  video("ab/later.mp4");
  EXPECT_TRUE(settles({"ab/z.mp4:8", "ab/later.mp4:8"}));
  EXPECT_EQ(monitor->delFolder(media("a")), 1);
}

TEST_F(Monitor, AFolderWithinADeletedOneStaysWatched) {
  video("a/x.mp4");
  video("a/in/y.mp4");
  ASSERT_EQ(monitor->startAll(), 0);
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  ASSERT_TRUE(settles({"a/x.mp4:4", "a/in/y.mp4:4"}));
  ASSERT_TRUE(isScanned());
  deleteAllJobs();
  ASSERT_EQ(monitor->addFolder(media("a/in"), "8"), 0);
  ASSERT_TRUE(waitUntil([this] { return jobs() == std::vector<std::string>{"a/in/y.mp4:8"}; }))
      << "a folder with its own target takes its files from the one around it";
  EXPECT_EQ(monitor->delFolder(media("a")), 0);
  EXPECT_TRUE(settles({"a/in/y.mp4:8"})) << "its files are queued again";
  video("a/in/later.mp4");
  video("a/later.mp4");
  EXPECT_TRUE(settles({"a/in/y.mp4:8", "a/in/later.mp4:8"}));
}

TEST_F(Monitor, ADeletedFolderWithinAnotherBelongsToThatOne) {
  video("a/x.mp4");
  video("a/in/y.mp4");
  ASSERT_EQ(monitor->startAll(), 0);
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  ASSERT_TRUE(settles({"a/x.mp4:4", "a/in/y.mp4:4"}));
  ASSERT_TRUE(isScanned());
  deleteAllJobs();
  ASSERT_EQ(monitor->addFolder(media("a/in"), "8"), 0);
  ASSERT_TRUE(waitUntil([this] { return jobs() == std::vector<std::string>{"a/in/y.mp4:8"}; }))
      << "a folder with its own target takes its files from the one around it";
  ASSERT_TRUE(isScanned());
  EXPECT_EQ(monitor->delFolder(media("a/in")), 0);
  EXPECT_TRUE(waitUntil([this] { return jobs() == std::vector<std::string>{"a/in/y.mp4:4"}; }));
  video("a/in/later.mp4");
  EXPECT_TRUE(waitUntil([this] { return jobs().size() == 2; }));
  EXPECT_THAT(jobs(), ElementsAre("a/in/y.mp4:4", "a/in/later.mp4:4"));
}

TEST_F(Monitor, AFolderWithRunsOfSlashesIsForgottenCompletely) {
  video("a/x.mp4");
  ASSERT_EQ(monitor->startAll(), 0);
  ASSERT_EQ(monitor->addFolder(media("") + "/a//", "4"), 0);
  ASSERT_TRUE(settles({"a/x.mp4:4"}));
  video("a/y.mp4");
  ASSERT_TRUE(settles({"a/x.mp4:4", "a/y.mp4:4"}));
  EXPECT_EQ(monitor->addFolder(media("a"), "4"), 1);
  EXPECT_EQ(monitor->delFolder(media("a")), 0);
  EXPECT_TRUE(settles({}));
}

TEST_F(Monitor, DeletingAFolderQueuesWhatBelongsToOthersThoughTheScannerIsStopped) {
  video("a/in/y.mp4");
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  ASSERT_EQ(monitor->addFolder(media("a/in"), "8"), 0);
  ASSERT_TRUE(isScanned());
  ASSERT_EQ(monitor->stopScanner(), 0);
  EXPECT_EQ(monitor->delFolder(media("a")), 0);
  EXPECT_TRUE(settles({"a/in/y.mp4:8"}));
}

TEST_F(Monitor, AFolderIsAwayWhenItIsMissingOrEmpty) {
  video("a/sub/x.mp4");
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  const std::string file = media("a/sub/x.mp4");
  EXPECT_FALSE(monitor->isAway(file));
  EXPECT_FALSE(monitor->isAway(media("b/x.mp4"))) << "nobody watches it";
  fs::rename(media("a"), media("elsewhere"));
  EXPECT_TRUE(monitor->isAway(file));
  folder("a");
  EXPECT_TRUE(monitor->isAway(file));
  video("a/y.mp4");
  EXPECT_FALSE(monitor->isAway(file)) << "the folder is there and the file is not";
}

TEST_F(Monitor, BuildsOneFolderOrAllOfThem) {
  video("a/x.mp4");
  video("b/y.mp4");
  ASSERT_EQ(monitor->startScanner(), 0);
  EXPECT_EQ(monitor->buildFolder(media("a"), "16"), 0) << "it need not be in the list";
  EXPECT_TRUE(settles({"a/x.mp4:16"}));
  EXPECT_EQ(monitor->buildFolder(media("a"), "-1"), 1);
  ASSERT_EQ(monitor->addFolder(media("b"), "8"), 0);
  ASSERT_TRUE(settles({"a/x.mp4:16", "b/y.mp4:8"}));
  video("b/z.mp4");
  EXPECT_EQ(monitor->buildAllFolder(), 0);
  EXPECT_TRUE(settles({"a/x.mp4:16", "b/y.mp4:8", "b/z.mp4:8"}));
}

TEST_F(Monitor, FolderRequestsAreAnsweredWhileAScanGoesOn) {
  for (int i = 0; i < 3000; ++i)
    video("big/" + std::to_string(i % 30) + "/" + std::to_string(i) + ".mp4");
  folder("small");
  ASSERT_EQ(monitor->startAll(), 0);
  ASSERT_EQ(monitor->addFolder(media("big"), "4"), 0);
  ASSERT_TRUE(waitUntil([this] { return !jobs().empty(); }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(monitor->addFolder(media("small"), "4"), 0);
  EXPECT_EQ(monitor->getFolderSize(), 2);
  EXPECT_EQ(monitor->updateFolder(media("small"), "8"), 0);
  EXPECT_EQ(monitor->delFolder(media("small")), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(monitor->getWatchStatus().scanning, media("big"));
  const auto stopping = std::chrono::steady_clock::now();
  EXPECT_EQ(monitor->stopScanner(), 0);
  EXPECT_EQ(monitor->stopBuildAll(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, std::chrono::seconds(1));
  EXPECT_EQ(monitor->getWatchStatus().queuedScans, 0);
}

TEST_F(Monitor, FoldersSurviveARestart) {
  folder("a");
  ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
  monitor->stopAll();
  ASSERT_EQ(monitor->uninit(), 0);
  ASSERT_EQ(monitor->init(7, paths()), 0);
  EXPECT_THAT(folders(), ElementsAre("a:4"));
}

TEST_F(Monitor, InitFailsWithoutAFolderFile) {
  monitor->uninit();
  EXPECT_EQ(monitor->init(7, {m_state / "mediadb.xml", m_state / "no/such/x.xml"}), 1);
  ASSERT_EQ(monitor->init(7, paths()), 0);
}

TEST_F(Monitor, HelpersOfAnEarlierRunAreEnded) {
  Idler helper("fsmond -client:xcoded");
  Idler other("fsmond -client:other");
  // The list holds the processes of one terminal; without one only a stand-in shows more.
  monitor->uninit();
  log.clear();
  ASSERT_EQ(monitor->init(7, paths()), 0);
  if (!log.hasPart("kill pid:" + std::to_string(helper.pid())))
    GTEST_SKIP() << "the processes of this session are not listed";
  EXPECT_TRUE(waitUntil([&] { return helper.hasEnded(); }));
  EXPECT_FALSE(other.hasEnded());
}
