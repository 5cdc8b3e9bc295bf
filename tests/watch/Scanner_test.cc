#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "KxTransFileScanner.h"
#include "tests/watch/WatchWorld.h"

namespace fs = std::filesystem;
using kxtest::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

class Scanner : public WatchWorld {
 public:
  Scanner() {
    EXPECT_EQ(m_config.init(paths()), 0);
    EXPECT_EQ(scanner->init(&m_config), 0);
  }
  ~Scanner() override {
    scanner->stop();
    scanner->uninit();
  }

 protected:
  int scan(const std::string& path, const std::string& target = "4") {
    return scanner->scanFolder(KxTransFileSetting(path, target));
  }
  bool isIdle() {
    return waitUntil([this] { return scanner->getQueueSize() == 0; }) && scanner->stop() == 0;
  }

  KxTransFileConfig m_config;
  KxTransFileScanner* const scanner = KxTransFileScanner::getInstance();
};

}  // namespace

TEST_F(Scanner, QueuesTheVideosOfATreeWithTheFoldersTarget) {
  video("in/a.mp4");
  video("in/sub/deep/b.MKV");
  kxtest::writeFile(folder("in") + "/song.mp3", "x");
  kxtest::writeFile(media("in/text.txt"), "x");
  fs::create_symlink(media("in/a.mp4"), media("in/link.mp4"));
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_THAT(jobs(), UnorderedElementsAre("in/a.mp4:4", "in/sub/deep/b.MKV:4"));
  EXPECT_THAT(records(), ElementsAre("in/a.mp4:now", "in/sub/deep/b.MKV:now"));
  const KxDBTaskParam row = rows().at(0);
  EXPECT_EQ(row.insertType, INSERT_WATCHER);
  EXPECT_EQ(row.fileSize, 8);
}

TEST_F(Scanner, IgnoresTheServicesOwnFolders) {
  for (const char* name : {".@__thumb", "@Transcode", "@Recycle", "my@Transcodes", "@Recycle2"})
    video(std::string("in/") + name + "/a.mp4");
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(Scanner, ASecondScanFindsNothingNew) {
  video("in/a.mp4");
  EXPECT_EQ(scan(media("in") + "/"), 0);
  deleteAllJobs();
  log.clear();
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(Scanner, AChangedFileIsQueuedAgainAndItsNewTimeRecorded) {
  video("in/a.mp4");
  scan(media("in"));
  deleteAllJobs();
  setTime(media("in/a.mp4"), 1000);
  scan(media("in"));
  EXPECT_THAT(jobs(), ElementsAre("in/a.mp4:4"));
  EXPECT_THAT(records(), ElementsAre("in/a.mp4:now"));
}

TEST_F(Scanner, AFileOfBeforeTheEpochIsQueuedAtEveryScanAndNeverRecorded) {
  setTime(video("in/a.mp4"), 0);
  scan(media("in"));
  EXPECT_THAT(records(), IsEmpty());
  deleteAllJobs();
  scan(media("in"));
  EXPECT_THAT(jobs(), ElementsAre("in/a.mp4:4"));
}

TEST_F(Scanner, WithoutATargetNothingIsScanned) {
  video("in/a.mp4");
  log.clear();
  EXPECT_EQ(scan(media("in"), ""), 1);
  EXPECT_EQ(scan("", "4"), 1);
  EXPECT_EQ(log.count("empty\n"), 2U);
  EXPECT_EQ(scan(media("absent")), 1);
  EXPECT_EQ(log.count("opendir failed\n"), 1U);
  EXPECT_TRUE(log.has("#path: " + media("absent") + "\n"));
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(Scanner, ATargetOfNothingRecordsFilesAndQueuesNone) {
  video("in/a.mp4");
  EXPECT_EQ(scan(media("in"), "0"), 0);
  EXPECT_THAT(jobs(), IsEmpty());
  EXPECT_THAT(records(), ElementsAre("in/a.mp4:now"));
}

TEST_F(Scanner, ANegativeTargetIsRefusedAndNeverQueues) {
  video("in/a.mp4");
  log.clear();
  EXPECT_EQ(scanner->addFolder({media("in"), "-1"}), 1);
  EXPECT_TRUE(log.has("Invalid parameter : " + media("in") + " : -1\n"));
  EXPECT_EQ(scanner->addFolder({media("absent"), "4"}), 1);
  EXPECT_TRUE(log.has("Invalid parameter : " + media("absent") + " : 4\n"));
  EXPECT_EQ(scanner->addFolder({folder("@Transcode"), "4"}), 1);
  log.clear();
  EXPECT_EQ(scanner->updateFolder({media("in"), "-1"}), 1);
  EXPECT_THAT(log.texts(), IsEmpty());
  EXPECT_EQ(scanner->getQueueSize(), 0U);
  scan(media("in"), "-1");
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(Scanner, AFolderOfTheListWithinTheWalkedOneHasItsOwnTarget) {
  video("in/a.mp4");
  video("in/nested/b.mp4");
  video("in/nested/sub/c.mp4");
  video("in/nestedlike/d.mp4");
  ASSERT_EQ(m_config.addFolder({media("in"), "4"}), 0);
  ASSERT_EQ(m_config.addFolder({media("in/nested"), "8"}), 0);
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_THAT(jobs(), UnorderedElementsAre("in/a.mp4:4", "in/nested/b.mp4:8",
                                           "in/nested/sub/c.mp4:8", "in/nestedlike/d.mp4:4"));
}

TEST_F(Scanner, NamesOfAnyBytesAreQueuedOnce) {
  const std::vector<std::string> names = {"a\nb.mp4", "\"q\" 'r'.mp4", "100%_x.mp4", "\xff\xfe.mp4",
                                          std::string(251, 'n') + ".mp4"};
  for (const std::string& name : names) video("in/" + name);
  for (const std::string& name : names) video("in/dir " + name.substr(0, 200) + "/a.mp4");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(scan(media("in")), 0);
  EXPECT_EQ(rows().size(), 2 * names.size());
  EXPECT_EQ(records().size(), 2 * names.size());
}

TEST_F(Scanner, LinksAndLoopsAreNotFollowed) {
  video("in/a.mp4");
  fs::create_directory_symlink(media("in"), media("in/loop"));
  fs::create_directory_symlink(folder("other"), media("in/other"));
  video("other/b.mp4");
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_THAT(jobs(), ElementsAre("in/a.mp4:4"));
}

TEST_F(Scanner, ATreeDeeperThanTheDescriptorLimitIsWalked) {
  std::string path = folder("in");
  for (int i = 0; i < 1200; ++i) ASSERT_TRUE(fs::create_directory(path += "/d"));
  kxtest::writeFile(path + "/a.mp4", "x");
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_EQ(rows().size(), 1U);
}

TEST_F(Scanner, AnUnreadableFolderIsLoggedAndTheRestScanned) {
  video("in/a.mp4");
  video("in/closed/b.mp4");
  fs::permissions(m_media.path(), fs::perms::all);
  fs::permissions(media("in/closed"), fs::perms::none);
  log.clear();
  // The call itself changes the rights of one thread only.
  std::thread stranger([this] {
    if (geteuid() == 0) {
      ASSERT_EQ(syscall(SYS_setresuid, 65534, 65534, 65534), 0);
    }
    EXPECT_EQ(scan(media("in")), 0);
  });
  stranger.join();
  EXPECT_EQ(log.count("opendir failed\n"), 1U);
  EXPECT_THAT(jobs(), ElementsAre("in/a.mp4:4"));
  fs::permissions(media("in/closed"), fs::perms::all);
}

TEST_F(Scanner, TheQueueGivesItsTasksInOrder) {
  KxTransFileScanQueue queue;
  ASSERT_EQ(queue.init(), 0);
  EXPECT_EQ(queue.pop(), nullptr);
  queue.push(new KxTransFileScanTask(SCAN_ALL));
  queue.push(new KxTransFileScanTask(SCAN_ADDED, KxTransFileSetting("/a", "4")));
  queue.push(new KxTransFileScanTask(SCAN_UPDATED, KxTransFileSetting("/b", "4")));
  EXPECT_EQ(queue.size(), 3U);
  std::unique_ptr<KxTransFileScanTask> task(queue.pop());
  EXPECT_EQ(task->m_type, SCAN_ALL);
  EXPECT_TRUE(task->m_setting.isEmpty());
  task.reset(queue.pop());
  EXPECT_EQ(task->m_setting.getFilePath(), "/a");
  queue.clear();
  EXPECT_EQ(queue.size(), 0U);
  EXPECT_EQ(queue.pop(), nullptr);
  EXPECT_EQ(queue.uninit(), 0);
}

TEST_F(Scanner, TheWorkerScansEveryFolderOfTheList) {
  video("a/1.mp4");
  video("b/2.mp4");
  ASSERT_EQ(m_config.addFolder({media("a"), "4"}), 0);
  ASSERT_EQ(m_config.addFolder({media("b"), "8"}), 0);
  ASSERT_EQ(m_config.addFolder({media("gone"), "8"}), 0);
  EXPECT_FALSE(scanner->getStatus());
  ASSERT_EQ(scanner->start(), 0);
  EXPECT_TRUE(scanner->checkStatus());
  EXPECT_EQ(scanner->start(), 1) << "it runs already";
  EXPECT_EQ(scanner->buildAll(), 0);
  EXPECT_EQ(scanner->buildAll(), 0);
  EXPECT_TRUE(settles({"a/1.mp4:4", "b/2.mp4:8"}));
  ASSERT_TRUE(isIdle());
  EXPECT_EQ(jobs().size(), 2U) << "the second scan finds nothing new";
  EXPECT_TRUE(log.has(5, "KxTransFileScanner", "thread offline\n"));
  EXPECT_FALSE(scanner->getStatus());
  EXPECT_EQ(scanner->stop(), 1);
}

TEST_F(Scanner, AWakeUpWithoutATaskIsLogged) {
  ASSERT_EQ(scanner->start(), 0);
  scanner->pulse();
  EXPECT_TRUE(waitUntil([this] { return log.has("pop failed\n"); }));
}

TEST_F(Scanner, AnUpdatedFolderQueuesTheFilesDirectlyInItAgain) {
  video("in/a.mp4");
  video("in/sub/b.mp4");
  scan(media("in"));
  deleteAllJobs();
  ASSERT_EQ(scanner->start(), 0);
  EXPECT_EQ(scanner->updateFolder({media("in"), "8"}), 0);
  EXPECT_TRUE(waitUntil([this] { return jobs() == std::vector<std::string>{"in/a.mp4:8"}; }));
  ASSERT_TRUE(isIdle());
  EXPECT_THAT(jobs(), ElementsAre("in/a.mp4:8"));
  EXPECT_THAT(records(), ElementsAre("in/a.mp4:now", "in/sub/b.mp4:now"));
}

TEST_F(Scanner, TasksOfAStoppedScannerAreDoneAtTheNextStart) {
  video("in/a.mp4");
  EXPECT_EQ(scanner->addFolder({media("in"), "4"}), 0);
  EXPECT_EQ(scanner->getQueueSize(), 1U);
  ASSERT_EQ(scanner->start(), 0);
  EXPECT_TRUE(settles({"in/a.mp4:4"}));
  ASSERT_TRUE(isIdle());
  video("in/b.mp4");
  EXPECT_EQ(scanner->addFolder({media("in"), "4"}), 0);
  EXPECT_THAT(jobs(), ElementsAre("in/a.mp4:4"));
  ASSERT_EQ(scanner->start(), 0);
  EXPECT_TRUE(settles({"in/a.mp4:4", "in/b.mp4:4"}));
  EXPECT_FALSE(log.has("pop failed\n"));
}

// The store's lock is held to keep the scan at a place of its own.
TEST_F(Scanner, DroppingTheQueueLetsTheScanInProgressFinish) {
  for (int i = 0; i < 20; ++i) video("a/" + std::to_string(i) + ".mp4");
  video("b/x.mp4");
  ASSERT_EQ(scanner->start(), 0);
  {
    const StoreGuard lock;
    scanner->addFolder({media("a"), "4"});
    ASSERT_TRUE(waitUntil([this] { return scanner->getQueueSize() == 0; }));
    scanner->addFolder({media("b"), "4"});
    scanner->buildAll();
    EXPECT_EQ(scanner->getQueueSize(), 2U);
    EXPECT_EQ(scanner->stopBuildAll(), 0);
    EXPECT_EQ(scanner->getQueueSize(), 0U);
  }
  EXPECT_TRUE(waitUntil([this] { return jobs().size() == 20U; }));
  ASSERT_TRUE(isIdle());
  EXPECT_EQ(jobs().size(), 20U);
}

TEST_F(Scanner, StoppingEndsAWalkEarlyAndTheNextScanDoesTheRest) {
  constexpr size_t kFiles = 60;
  for (size_t i = 0; i < kFiles; ++i) video("a/" + std::to_string(i) + "/x.mp4");
  ASSERT_EQ(scanner->start(), 0);
  std::thread stopper;
  {
    const StoreGuard lock;
    scanner->addFolder({media("a"), "4"});
    ASSERT_TRUE(waitUntil([this] { return scanner->getQueueSize() == 0; }));
    stopper = std::thread([this] { scanner->stop(); });
    ASSERT_TRUE(waitUntil([this] { return !scanner->getStatus(); }));
  }
  stopper.join();
  EXPECT_LT(jobs().size(), 3U);
  EXPECT_EQ(scan(media("a")), 0);
  EXPECT_EQ(jobs().size(), kFiles);
}

TEST_F(Scanner, StartAndStopInQuickSuccessionNeverHang) {
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(scanner->start(), 0);
    ASSERT_EQ(scanner->stop(), 0);
  }
}

TEST_F(Scanner, ItNeedsAFolderList) {
  EXPECT_EQ(scanner->init(nullptr), 1);
}

TEST_F(Scanner, RunsOfSlashesInAFoldersPathMakeNoOtherFolder) {
  video("in/sub/a.mp4");
  video("in/b.mp4");
  scan(media("in"));
  deleteAllJobs();
  EXPECT_EQ(scan(media("") + "/in//"), 0);
  EXPECT_THAT(jobs(), IsEmpty());
  ASSERT_EQ(scanner->start(), 0);
  EXPECT_EQ(scanner->updateFolder({media("") + "/in//", "8"}), 0);
  ASSERT_TRUE(isIdle());
  EXPECT_THAT(jobs(), ElementsAre("in/b.mp4:8"));
  EXPECT_THAT(records(), ElementsAre("in/b.mp4:now", "in/sub/a.mp4:now"));
}

TEST_F(Scanner, AFolderThatLeavesTheListDuringItsScanQueuesNothingMore) {
  for (int i = 0; i < 20; ++i) video("a/" + std::to_string(i) + ".mp4");
  ASSERT_EQ(m_config.addFolder({media("a"), "4"}), 0);
  ASSERT_EQ(scanner->start(), 0);
  {
    const StoreGuard lock;
    scanner->buildAll();
    ASSERT_TRUE(waitUntil([this] { return scanner->getQueueSize() == 0; }));
    ASSERT_EQ(m_config.delFolder(media("a")), 0);
  }
  ASSERT_TRUE(isIdle());
  EXPECT_THAT(jobs(), IsEmpty());
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(Scanner, AFolderThatJoinsTheListDuringAScanAroundItHasItsOwnTarget) {
  for (int i = 0; i < 3; ++i) video("a/in/" + std::to_string(i) + ".mp4");
  ASSERT_EQ(m_config.addFolder({media("a"), "4"}), 0);
  std::thread walker;
  {
    const StoreGuard lock;
    // As the agent walks a folder that appears.
    walker = std::thread([this] {
      scanner->scanFolder(
          KxTransFileSetting(media("a/in"), "4"), [] { return false; }, true);
    });
    ASSERT_TRUE(waitUntil([this] { return log.has("#path: " + media("a/in") + "\n"); }));
    ASSERT_EQ(m_config.addFolder({media("a/in"), "8"}), 0);
  }
  walker.join();
  EXPECT_THAT(jobs(), UnorderedElementsAre("a/in/0.mp4:8", "a/in/1.mp4:8", "a/in/2.mp4:8"));
}

TEST_F(Scanner, AWalkWithATargetOfItsOwnKeepsToIt) {
  video("a/x.mp4");
  video("a/in/y.mp4");
  ASSERT_EQ(m_config.addFolder({media("a"), "4"}), 0);
  ASSERT_EQ(m_config.addFolder({media("a/in"), "8"}), 0);
  scan(media("a"), "16");
  EXPECT_THAT(jobs(), UnorderedElementsAre("a/x.mp4:16", "a/in/y.mp4:8"));
}

TEST_F(Scanner, AFileThatCouldNotBeQueuedIsTakenByTheNextScan) {
  video("in/a.mp4");
  store->exec("ALTER TABLE JobTable RENAME TO Away");
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_THAT(records(), IsEmpty());
  store->exec("ALTER TABLE Away RENAME TO JobTable");
  EXPECT_EQ(scan(media("in")), 0);
  EXPECT_THAT(jobs(), ElementsAre("in/a.mp4:4"));
}

TEST_F(Scanner, TellsTheHostOfEachQueuedJob) {
  static std::atomic<int> told;
  told = 0;
  const KxWatchListener listener{nullptr, [](void*) { ++told; }, nullptr};
  KxTransFileMonitor::setListener(&listener);
  video("in/a.mp4");
  video("in/b.mp4");
  scan(media("in"));
  scan(media("in"));
  EXPECT_EQ(told, 2);
}
