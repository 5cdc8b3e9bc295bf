#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "KxHostPlatform.h"
#include "KxTransFileScanner.h"
#include "KxTransNotifyAgent.h"
#include "frame/UniqueFd.h"
#include "tests/support/Sanitizers.h"
#include "tests/watch/WatchWorld.h"

namespace fs = std::filesystem;
using kxtest::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Shows a folder at a second place, or an empty file system, while it lives.
class Mounted {
 public:
  Mounted(const std::string& source, std::string target) : m_target(std::move(target)) {
    m_isMounted = source.empty()
                      ? mount("none", m_target.c_str(), "tmpfs", 0, "") == 0
                      : mount(source.c_str(), m_target.c_str(), nullptr, MS_BIND, nullptr) == 0;
  }
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;
  ~Mounted() { umount2(m_target.c_str(), MNT_DETACH); }
  bool isMounted() const { return m_isMounted; }

 private:
  const std::string m_target;
  bool m_isMounted;
};

// The agent on real watches: "a" (target 4) and "b" (target 8) are watched.
class NotifyAgent : public WatchWorld {
 protected:
  void SetUp() override {
    folder("a");
    folder("b");
    initMonitor();
    ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
    ASSERT_EQ(monitor->addFolder(media("b"), "8"), 0);
    ASSERT_EQ(monitor->startNotify(), 0);
    // Only the agent is to find anything.
    monitor->stopScanner();
    monitor->stopBuildAll();
    log.clear();
  }

  KxWatchedFolder state(const std::string& name) const {
    for (const KxWatchedFolder& watched : monitor->getWatchStatus().folders)
      if (watched.setting.getFilePath() == media(name)) return watched;
    return {};
  }
  bool hasState(const std::string& name, KxWatchState_e wanted) const {
    return waitUntil([&] { return state(name).state == wanted; });
  }
  // The agent has dealt with everything that happened until now.
  bool isQuiet() const {
    static int count = 0;
    const std::string mark = media("a/mark" + std::to_string(++count) + ".txt");
    kxtest::writeFile(mark, "x");
    const std::string seen = fs::path(mark).filename().string() + " do not support\n";
    return waitUntil([&] { return log.has(seen); });
  }
  // A walk that has a folder open keeps its file system.
  bool isUnmounted(const std::string& name) const {
    return waitUntil([&] { return umount(media(name).c_str()) == 0; });
  }
  void setRunning(const std::string& name) {
    const StoreGuard lock;
    store->exec("UPDATE JobTable SET Status = 3 WHERE SrcPath = '" + media(name) + "'");
  }

  KxTransNotifyAgent* const agent = KxTransNotifyAgent::getInstance();
};

}  // namespace

TEST_F(NotifyAgent, AWrittenFileIsOneJobWhenItIsClosed) {
  {
    std::ofstream file(media("a/clip.mp4"));
    for (int i = 0; i < 5; ++i) {
      file << "part" << std::flush;
      EXPECT_THAT(jobs(), IsEmpty());
    }
  }
  EXPECT_TRUE(settles({"a/clip.mp4:4"}));
  EXPECT_EQ(log.count("[notify] add file: " + media("a/clip.mp4") + "\n"), 1U);
  EXPECT_TRUE(log.has(5, "KxTransNotifyAgent", "[notify] event->name=clip.mp4, event->mask=8\n"));
  EXPECT_EQ(rows().at(0).insertType, INSERT_WATCHER);
  EXPECT_EQ(rows().at(0).fileSize, 20);
}

TEST_F(NotifyAgent, AFileThatIsNoVideoIsOnlyMentioned) {
  kxtest::writeFile(media("a/song.mp3"), "x");
  ASSERT_TRUE(isQuiet());
  EXPECT_THAT(jobs(), IsEmpty());
  for (const std::string& text : log.texts()) EXPECT_NE(text.find("do not support\n"), text.npos);
}

TEST_F(NotifyAgent, AFileMovedInIsAJobAndOneMovedOutIsNone) {
  video("outside.mp4");
  fs::rename(media("outside.mp4"), media("a/in.mp4"));
  EXPECT_TRUE(settles({"a/in.mp4:4"}));
  fs::rename(media("a/in.mp4"), media("outside.mp4"));
  EXPECT_TRUE(settles({}));
  EXPECT_TRUE(log.has("[notify] delete file: " + media("a/in.mp4") + "\n"));
}

TEST_F(NotifyAgent, AFileMovedBetweenWatchedFoldersChangesItsTarget) {
  video("a/x.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4"}));
  fs::rename(media("a/x.mp4"), media("b/x.mp4"));
  EXPECT_TRUE(settles({"b/x.mp4:8"}));
}

TEST_F(NotifyAgent, ACopyThroughATemporaryNameIsOneJob) {
  video("a/.clip.mp4.Xy12");
  fs::rename(media("a/.clip.mp4.Xy12"), media("a/clip.mp4"));
  EXPECT_TRUE(settles({"a/clip.mp4:4"}));
  video("a/tmp-two.mp4");
  fs::rename(media("a/tmp-two.mp4"), media("a/two.mp4"));
  EXPECT_TRUE(settles({"a/clip.mp4:4", "a/two.mp4:4"}));
}

TEST_F(NotifyAgent, AHardLinkIsCompleteAsItComes) {
  video("outside.mp4");
  fs::create_hard_link(media("outside.mp4"), media("a/link.mp4"));
  EXPECT_TRUE(settles({"a/link.mp4:4"}));
}

TEST_F(NotifyAgent, ADeletedFileLosesItsJobsInWhateverState) {
  video("a/x.mp4");
  video("a/y.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/y.mp4:4"}));
  setRunning("a/x.mp4");
  {
    const StoreGuard lock;
    KxDBTaskParam user;
    user.src = media("a/x.mp4");
    user.jobFlag = 1;
    user.insertType = INSERT_USER;
    ASSERT_EQ(store->addDBJob(user), 0);
  }
  fs::remove(media("a/x.mp4"));
  EXPECT_TRUE(settles({"a/y.mp4:4"}));
}

TEST_F(NotifyAgent, TellsTheHostBeforeJobsAreForgotten) {
  static std::mutex mutex;
  static std::set<std::string> left;
  left.clear();
  const KxWatchListener listener{nullptr, nullptr, [](void*, const std::string& path) {
                                   const std::lock_guard<std::mutex> lock(mutex);
                                   left.insert(path);
                                 }};
  KxTransFileMonitor::setListener(&listener);
  video("a/x.mp4");
  video("a/sub/y.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/sub/y.mp4:4"}));
  fs::remove(media("a/x.mp4"));
  fs::rename(media("a/sub"), media("moved"));
  EXPECT_TRUE(settles({}));
  const std::lock_guard<std::mutex> lock(mutex);
  EXPECT_THAT(left, ElementsAre(media("a/sub/"), media("a/x.mp4")));
}

TEST_F(NotifyAgent, AFileWithAnUnchangedTimeIsNotQueuedAgain) {
  video("a/x.mp4");
  setTime(media("a/x.mp4"), 5000);
  ASSERT_TRUE(isQuiet());
  {
    const StoreGuard lock;
    store->addDBFile(KxDBMgrFileParam("x.mp4", media("a/"), 5000, 8));
  }
  deleteAllJobs();
  // Opened for writing and closed without a change.
  UniqueFd(open(media("a/x.mp4").c_str(), O_WRONLY | O_CLOEXEC)).reset();
  ASSERT_TRUE(isQuiet());
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(NotifyAgent, ANewFolderIsWatchedAndScanned) {
  fs::create_directories(media("a/new/deep"));
  ASSERT_TRUE(isQuiet());
  EXPECT_TRUE(log.has("[notify] add folder: " + media("a/new") + "\n"));
  EXPECT_TRUE(log.has("in order to prevent the new addFolder is not in NasVol, redo "
                      "genIndexableVolDir()\n"));
  video("a/new/deep/x.mp4");
  EXPECT_TRUE(settles({"a/new/deep/x.mp4:4"}));
}

TEST_F(NotifyAgent, AFolderMovedInIsScannedAndFollowed) {
  video("outside/sub/x.mp4");
  fs::rename(media("outside"), media("a/inside"));
  EXPECT_TRUE(settles({"a/inside/sub/x.mp4:4"}));
  video("a/inside/sub/y.mp4");
  EXPECT_TRUE(settles({"a/inside/sub/x.mp4:4", "a/inside/sub/y.mp4:4"}));
}

TEST_F(NotifyAgent, AFolderMovedOutIsForgottenAndNoLongerWatched) {
  video("a/sub/x.mp4");
  video("a/subway/y.mp4");
  EXPECT_TRUE(settles({"a/sub/x.mp4:4", "a/subway/y.mp4:4"}));
  fs::rename(media("a/sub"), media("gone"));
  EXPECT_TRUE(settles({"a/subway/y.mp4:4"}));
  EXPECT_TRUE(log.has("[notify] delete folder: " + media("a/sub") + "\n"));
  video("gone/z.mp4");
  ASSERT_TRUE(isQuiet());
  EXPECT_THAT(jobs(), ElementsAre("a/subway/y.mp4:4"));
  // When it comes back its files are new again.
  fs::rename(media("gone"), media("a/sub"));
  EXPECT_TRUE(settles({"a/subway/y.mp4:4", "a/sub/x.mp4:4", "a/sub/z.mp4:4"}));
}

TEST_F(NotifyAgent, AFolderRenamedOrMovedBetweenWatchedFoldersTakesItsFilesAlong) {
  video("a/old/x.mp4");
  EXPECT_TRUE(settles({"a/old/x.mp4:4"}));
  fs::rename(media("a/old"), media("a/new"));
  EXPECT_TRUE(settles({"a/new/x.mp4:4"}));
  fs::rename(media("a/new"), media("b/new"));
  EXPECT_TRUE(settles({"b/new/x.mp4:8"}));
  video("b/new/y.mp4");
  EXPECT_TRUE(settles({"b/new/x.mp4:8", "b/new/y.mp4:8"}));
}

TEST_F(NotifyAgent, ATreeDeletedAndCreatedAgainIsQueuedAgain) {
  for (int round = 0; round < 5; ++round) {
    video("a/t/u/x.mp4");
    video("a/t/y.mp4");
    EXPECT_TRUE(settles({"a/t/u/x.mp4:4", "a/t/y.mp4:4"})) << round;
    fs::remove_all(media("a/t"));
    if (round % 2 == 0) {
      EXPECT_TRUE(settles({})) << round;
    }
  }
}

TEST_F(NotifyAgent, TheServicesOwnFoldersAreNotWatched) {
  for (const char* name : {"@Transcode", ".@__thumb", "@Recycle"})
    fs::create_directory(media(std::string("a/") + name));
  ASSERT_TRUE(isQuiet());
  EXPECT_TRUE(log.has("[notify] add folder: " + media("a/@Transcode") + "\n"));
  for (const char* name : {"@Transcode", ".@__thumb", "@Recycle"})
    video(std::string("a/") + name + "/x.mp4");
  ASSERT_TRUE(isQuiet());
  EXPECT_THAT(jobs(), IsEmpty());
  EXPECT_FALSE(log.hasPart("event->name=x.mp4"));
}

TEST_F(NotifyAgent, AFileWithTheNameOfAnOwnFolderIsRefused) {
  video("a/my@Transcodes.mp4");
  ASSERT_TRUE(isQuiet());
  EXPECT_TRUE(log.has("Invalid path: " + media("a/my@Transcodes.mp4") + "\n"));
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(NotifyAgent, LinksAreNotFollowed) {
  video("outside/x.mp4");
  fs::create_symlink(media("outside/x.mp4"), media("a/link.mp4"));
  fs::create_directory_symlink(media("outside"), media("a/folder"));
  fs::create_symlink(media("outside/x.mp4"), media("away.mp4"));
  fs::rename(media("away.mp4"), media("a/moved.mp4"));
  ASSERT_TRUE(isQuiet());
  EXPECT_THAT(jobs(), IsEmpty());
  EXPECT_TRUE(log.has("Invalid path: " + media("a/moved.mp4") + "\n"));
}

TEST_F(NotifyAgent, NamesOfAnyBytesAreWatched) {
  const std::vector<std::string> names = {"a\nb.mp4", "\"q\" 'r'.mp4", "100%s_x.mp4",
                                          "\xff\xfe.mp4", std::string(251, 'n') + ".mp4"};
  std::vector<std::string> wanted;
  for (const std::string& name : names) {
    const std::string sub = "a/" + name.substr(0, name.size() - 4);
    video(std::string(sub).append("/").append(name));
    video(std::string("a/").append(name));
    wanted.push_back(std::string(sub).append("/").append(name).append(":4"));
    wanted.push_back(std::string("a/").append(name).append(":4"));
  }
  EXPECT_TRUE(settles(wanted));
  for (const std::string& name : names) {
    fs::remove(media("a/" + name));
    fs::remove_all(media("a/" + name.substr(0, name.size() - 4)));
  }
  EXPECT_TRUE(settles({}));
}

TEST_F(NotifyAgent, AnUnderscoreOrPercentInANameIsNoWildcard) {
  video("a/my_dir/x.mp4");
  video("a/myXdir/x.mp4");
  video("a/MY_DIR/x.mp4");
  video("a/100%/x.mp4");
  video("a/1000/x.mp4");
  EXPECT_TRUE(settles({"a/my_dir/x.mp4:4", "a/myXdir/x.mp4:4", "a/MY_DIR/x.mp4:4", "a/100%/x.mp4:4",
                       "a/1000/x.mp4:4"}));
  fs::remove_all(media("a/my_dir"));
  fs::rename(media("a/100%"), media("out"));
  EXPECT_TRUE(settles({"a/myXdir/x.mp4:4", "a/MY_DIR/x.mp4:4", "a/1000/x.mp4:4"}));
}

// Folders appear and are filled faster than they can be watched.
TEST_F(NotifyAgent, NothingIsMissedInTreesThatGrowQuickly) {
  std::vector<std::string> wanted;
  for (int i = 0; i < 120; ++i) {
    const std::string base = "a/t" + std::to_string(i) + "/u/v";
    video(base + "/x.mp4");
    wanted.push_back(base + "/x.mp4:4");
  }
  EXPECT_TRUE(settles(wanted));
}

TEST_F(NotifyAgent, ADeletedFolderOfTheListLeavesIt) {
  folder("a/nested");
  folder("a/nestedlike");
  ASSERT_EQ(monitor->addFolder(media("a/nested"), "16"), 0);
  ASSERT_EQ(monitor->addFolder(media("a/nestedlike"), "32"), 0);
  monitor->stopScanner();
  video("a/nested/x.mp4");
  video("a/nestedlike/y.mp4");
  EXPECT_TRUE(settles({"a/nested/x.mp4:16", "a/nestedlike/y.mp4:32"}));
  fs::remove_all(media("a/nested"));
  EXPECT_TRUE(waitUntil([this] { return monitor->getFolderSize() == 3; }));
  EXPECT_TRUE(settles({"a/nestedlike/y.mp4:32"}));
  // The agent was restarted by itself and goes on.
  EXPECT_TRUE(hasState("a", WATCH_ON));
  EXPECT_TRUE(hasState("a/nestedlike", WATCH_ON));
  video("a/after.mp4");
  EXPECT_TRUE(settles({"a/nestedlike/y.mp4:32", "a/after.mp4:4"}));
}

TEST_F(NotifyAgent, ManyDeletedFoldersOfTheListCostOneRestart) {
  for (int i = 0; i < 20; ++i) {
    folder("a/n" + std::to_string(i));
    ASSERT_EQ(monitor->addFolder(media("a/n" + std::to_string(i)), "16"), 0);
  }
  monitor->stopScanner();
  ASSERT_TRUE(isQuiet());
  log.clear();
  {
    // Keeps the worker at its first event until all are there.
    const StoreGuard lock;
    for (int i = 0; i < 20; ++i) fs::remove(media("a/n" + std::to_string(i)));
  }
  EXPECT_TRUE(waitUntil([this] { return monitor->getFolderSize() == 2; }));
  EXPECT_TRUE(waitUntil([this] { return log.count("#path: " + media("a") + "\n") > 0; }));
  EXPECT_TRUE(waitUntil([this] { return agent->getStatus(); }));
  ASSERT_TRUE(isQuiet());
  EXPECT_EQ(log.count("#path: " + media("a") + "\n"), 1U) << "one walk of each folder";
}

TEST_F(NotifyAgent, ADeletedFolderThatIsNotInTheListCausesNoRestart) {
  video("a/sub/x.mp4");
  EXPECT_TRUE(settles({"a/sub/x.mp4:4"}));
  log.clear();
  fs::remove_all(media("a/sub"));
  EXPECT_TRUE(settles({}));
  ASSERT_TRUE(isQuiet());
  EXPECT_FALSE(log.has("#path: " + media("a") + "\n"));
  EXPECT_EQ(monitor->getFolderSize(), 2);
  EXPECT_EQ(agent->delFolder(media("a/sub")), 1);
}

TEST_F(NotifyAgent, TakingAFolderOutRestartsWithoutIt) {
  EXPECT_EQ(agent->delFolder(KxTransFileSetting(media("a"), "4")), 0);
  EXPECT_EQ(monitor->getFolderSize(), 1);
  EXPECT_TRUE(agent->getStatus());
  EXPECT_FALSE(agent->isRestart());
  video("a/x.mp4");
  video("b/y.mp4");
  EXPECT_TRUE(settles({"b/y.mp4:8"}));
}

TEST_F(NotifyAgent, UpdateAndMoveReachTheListAndTheWatches) {
  EXPECT_EQ(agent->updateFolder(KxTransFileSetting(media("a"), "1")), 0);
  EXPECT_EQ(agent->updateFolder(KxTransFileSetting(media("c"), "1")), 1);
  video("a/x.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:1"}));
  EXPECT_EQ(agent->moveFolder(media("a"), media("moved/a")), 0);
  alignas(inotify_event) char buffer[sizeof(inotify_event) + 16] = {};
  auto* event = reinterpret_cast<inotify_event*>(buffer);
  strcpy(event->name, "x.mp4");
  event->wd = 1;
  EXPECT_EQ(agent->translateEvent(event), media("moved/a/x.mp4"));
}

TEST_F(NotifyAgent, ItNeedsAFolderList) {
  ASSERT_EQ(monitor->stopAll(), 0);
  ASSERT_EQ(agent->uninit(), 0);
  EXPECT_EQ(agent->start(), 1);
  EXPECT_EQ(agent->stop(), 1);
  EXPECT_EQ(agent->uninit(), 1);
  EXPECT_EQ(agent->init(0, nullptr), 1);
  KxTransFileConfig empty;
  ASSERT_EQ(agent->init(0, &empty), 0);
  EXPECT_EQ(agent->start(), 0);
  EXPECT_EQ(agent->stop(), 0);
}

TEST_F(NotifyAgent, TheEventQueueOverflowingIsShownAndRepaired) {
  long limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  if (limit > 100000) GTEST_SKIP() << "the event queue is too long here";
  video("a/before.mp4");
  video("a/dir/gone.mp4");
  EXPECT_TRUE(settles({"a/before.mp4:4", "a/dir/gone.mp4:4"}));
  {
    // The worker cannot go on while it waits for the store.
    const StoreGuard lock;
    video("a/trigger.mp4");
    const UniqueFd dir(open(media("b").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (long i = 0; i <= limit + 2000; ++i) {
      UniqueFd(openat(dir.get(), (i & 1) != 0 ? "p" : "q", O_WRONLY | O_CREAT | O_CLOEXEC, 0644))
          .reset();
    }
    video("a/lost.mp4");
    video("b/lostdir/lost.mp4");
    fs::remove(media("a/before.mp4"));
    fs::remove_all(media("a/dir"));
  }
  ASSERT_TRUE(waitUntil([this] { return monitor->getWatchStatus().lostEvents > 0; }));
  const KxWatchStatus status = monitor->getWatchStatus();
  EXPECT_NEAR(static_cast<double>(status.lastLost), static_cast<double>(time(nullptr)), 20);
  EXPECT_TRUE(log.has(3, "KxTransNotifyAgent",
                      "[notify] events were lost, watch and scan everything again\n"));
  // The scanner was stopped; nobody but the agent starts it.
  EXPECT_TRUE(settles({"a/trigger.mp4:4", "a/lost.mp4:4", "b/lostdir/lost.mp4:8"}));
  EXPECT_TRUE(waitUntil([this] { return !monitor->getWatchStatus().needsScan; }));
  // The folder whose creation was lost is watched now.
  video("b/lostdir/later.mp4");
  EXPECT_TRUE(settles(
      {"a/trigger.mp4:4", "a/lost.mp4:4", "b/lostdir/lost.mp4:8", "b/lostdir/later.mp4:8"}));
}

TEST_F(NotifyAgent, AFolderOfTheListThatIsDeletedAndComesBackIsWatchedAgain) {
  video("a/x.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4"}));
  fs::rename(media("a"), media("away"));
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(hasState("a", WATCH_MISSING));
  EXPECT_EQ(state("a").error, ENOENT);
  EXPECT_TRUE(log.has("[notify] folder " + media("a") + " is gone\n"));
  EXPECT_EQ(monitor->getFolderSize(), 2) << "it stays in the list";
  EXPECT_THAT(jobs(), ElementsAre("a/x.mp4:4"));
  video("away/elsewhere.mp4");
  fs::rename(media("away"), media("a"));
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(hasState("a", WATCH_ON));
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/elsewhere.mp4:4"}));
  video("a/y.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/elsewhere.mp4:4", "a/y.mp4:4"}));
}

TEST_F(NotifyAgent, AFolderOfTheListThatIsReplacedIsNoticedWithoutASignal) {
  ASSERT_EQ(monitor->startScanner(), 0);
  fs::rename(media("a"), media("old"));
  video("a/x.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4"}));
  video("a/y.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/y.mp4:4"}));
  video("old/z.mp4");
  ASSERT_TRUE(isQuiet());
  EXPECT_EQ(jobs().size(), 2U);
}

TEST_F(NotifyAgent, StartImportsWhatIsThereAndForgetsWhatIsGone) {
  video("a/x.mp4");
  video("a/sub/gone.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/sub/gone.mp4:4"}));
  ASSERT_EQ(monitor->stopNotify(), 0);
  EXPECT_FALSE(agent->getStatus());
  EXPECT_EQ(state("a").state, WATCH_OFF);
  video("a/new/y.mp4");
  fs::remove_all(media("a/sub"));
  ASSERT_EQ(monitor->startNotify(), 0);
  EXPECT_EQ(state("a").state, WATCH_ON);
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/new/y.mp4:4"}));
}

TEST_F(NotifyAgent, AFolderWhoseVolumeIsNotMountedKeepsItsJobs) {
  video("a/x.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4"}));
  ASSERT_EQ(monitor->stopNotify(), 0);
  // What an unmounted volume leaves: an empty folder.
  fs::rename(media("a"), media("volume"));
  folder("a");
  ASSERT_EQ(monitor->startNotify(), 0);
  EXPECT_THAT(jobs(), ElementsAre("a/x.mp4:4"));
}

// A folder that is seen at two places stands for a volume: its files stay when it goes.
TEST_F(NotifyAgent, AVolumeThatGoesAndComesBackKeepsItsJobs) {
  folder("volume");
  const Mounted mounted(media("volume"), media("a"));
  if (!mounted.isMounted()) GTEST_SKIP() << "mounting is not allowed here";
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(waitUntil([this] {
    return log.has("[notify] folder " + media("a") + " is there, watch and scan it\n");
  }));
  video("a/x.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4"}));
  EXPECT_FALSE(monitor->isAway(media("a/x.mp4")));
  log.clear();
  ASSERT_TRUE(isUnmounted("a"));
  EXPECT_TRUE(monitor->isAway(media("a/x.mp4")));
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(waitUntil([this] { return log.has("#path: " + media("a") + "\n"); }))
      << "the empty folder is watched and scanned";
  // What happens to the volume meanwhile is not seen here.
  video("volume/y.mp4");
  ASSERT_TRUE(isQuiet());
  EXPECT_THAT(jobs(), ElementsAre("a/x.mp4:4"));
  fs::remove_all(media("a"));
  folder("a");
  ASSERT_EQ(mount(media("volume").c_str(), media("a").c_str(), nullptr, MS_BIND, nullptr), 0);
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/y.mp4:4"}));
  video("a/z.mp4");
  EXPECT_TRUE(settles({"a/x.mp4:4", "a/y.mp4:4", "a/z.mp4:4"}));
}

TEST_F(NotifyAgent, AFileSystemThatIsUnmountedIsNoticedAtOnce) {
  const Mounted mounted("", media("a"));
  if (!mounted.isMounted()) GTEST_SKIP() << "mounting is not allowed here";
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(waitUntil([this] { return log.hasPart(" is there, watch and scan it\n"); }));
  video("a/sub/x.mp4");
  EXPECT_TRUE(settles({"a/sub/x.mp4:4"}));
  log.clear();
  ASSERT_TRUE(isUnmounted("a"));
  EXPECT_TRUE(waitUntil([this] { return log.hasPart(" is there, watch and scan it\n"); },
                        std::chrono::seconds(3)));
  EXPECT_THAT(jobs(), ElementsAre("a/sub/x.mp4:4"));
}

TEST_F(NotifyAgent, AFileSystemThatIsMountedAgainBeforeAnybodyLooksIsWatchedAgain) {
  folder("a/usb");
  const Mounted root(std::string(), media("b"));
  const Mounted below(std::string(), media("a/usb"));
  if (!root.isMounted() || !below.isMounted()) GTEST_SKIP() << "mounting is not allowed here";
  kill(getpid(), SIGHUP);
  video("a/usb/x.mp4");
  video("b/x.mp4");
  EXPECT_TRUE(settles({"a/usb/x.mp4:4", "b/x.mp4:8"}));
  ASSERT_TRUE(isQuiet());
  ASSERT_TRUE(waitUntil([this] {
    const KxWatchStatus status = monitor->getWatchStatus();
    return status.queuedScans == 0 && status.scanning.empty();
  }));
  {
    // Keeps the worker at its event.
    const StoreGuard lock;
    video("a/trigger.mp4");
    for (const char* name : {"a/usb", "b"}) {
      ASSERT_TRUE(isUnmounted(name));
      ASSERT_EQ(mount("none", media(name).c_str(), "tmpfs", 0, ""), 0);
    }
  }
  EXPECT_TRUE(waitUntil(
      [this] {
        return log.hasPart("[notify] folder " + media("b") + " is there") &&
               log.hasPart("[notify] a volume below " + media("a") + " came or went");
      },
      std::chrono::seconds(3)));
  video("a/usb/y.mp4");
  video("b/y.mp4");
  EXPECT_TRUE(waitUntil([this] { return jobs().size() == 5; }));
}

TEST_F(NotifyAgent, AVolumeMountedBelowAFolderOfTheListIsWatchedToo) {
  folder("volume/deep");
  folder("a/usb");
  video("volume/deep/before.mp4");
  ASSERT_TRUE(isQuiet());
  const Mounted mounted(media("volume"), media("a/usb"));
  if (!mounted.isMounted()) GTEST_SKIP() << "mounting is not allowed here";
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(settles({"a/usb/deep/before.mp4:4"}));
  EXPECT_TRUE(log.has(3, "KxTransNotifyAgent",
                      "[notify] a volume below " + media("a") +
                          " came or went, watch and scan the folder\n"));
  video("a/usb/deep/later.mp4");
  EXPECT_TRUE(settles({"a/usb/deep/before.mp4:4", "a/usb/deep/later.mp4:4"}));
  log.clear();
  ASSERT_TRUE(isUnmounted("a/usb"));
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(waitUntil([this] { return log.hasPart(" came or went, "); }));
  video("volume/deep/elsewhere.mp4");
  video("a/usb/here.mp4");
  EXPECT_TRUE(waitUntil([this] { return jobs().size() == 3; }));
  EXPECT_THAT(jobs(), testing::Contains("a/usb/here.mp4:4"));
  EXPECT_EQ(monitor->getFolderSize(), 2);
}

TEST_F(NotifyAgent, TenThousandFoldersAreWatched) {
  ASSERT_EQ(monitor->stopNotify(), 0);
  const int count = kxtest::kThreadSanitizer || kxtest::kAddressSanitizer ? 1000 : 10000;
  for (int i = 0; i < count; ++i)
    fs::create_directories(media("a/" + std::to_string(i / 100) + "/" + std::to_string(i)));
  ASSERT_EQ(monitor->startNotify(), 0);
  ASSERT_EQ(state("a").state, WATCH_ON);
  std::vector<std::string> wanted;
  for (int i = 0; i < count; i += 199) {
    const std::string name = "a/" + std::to_string(i / 100) + "/" + std::to_string(i) + "/x.mp4";
    video(name);
    wanted.push_back(name + ":4");
  }
  EXPECT_TRUE(settles(wanted));
}

TEST_F(NotifyAgent, AFolderThatMayNotBeReadIsLoggedAndTheRestWatched) {
  folder("a/closed");
  folder("a/open");
  ASSERT_TRUE(isQuiet());
  ASSERT_EQ(monitor->stopNotify(), 0);
  fs::permissions(m_media.path(), fs::perms::all);
  fs::permissions(media("a/closed"), fs::perms::none);
  log.clear();
  // The call itself changes the rights of one thread, and of the worker that it makes.
  std::thread stranger([this] {
    if (geteuid() == 0) {
      ASSERT_EQ(syscall(SYS_setresuid, 65534, 65534, 65534), 0);
    }
    EXPECT_EQ(monitor->startNotify(), 0);
  });
  stranger.join();
  EXPECT_TRUE(
      log.has(3, "F2notify",
              "can not watch " + media("a/closed/") + ", errno=13, strerror=Permission denied\n"));
  EXPECT_EQ(state("a").state, WATCH_ON);
  video("a/open/x.mp4");
  EXPECT_TRUE(settles({"a/open/x.mp4:4"}));
  ASSERT_EQ(monitor->stopNotify(), 0);
  fs::permissions(media("a/closed"), fs::perms::all);
}

TEST_F(NotifyAgent, StoppingScansEndsTheWalksOfAStartButNotItsWatches) {
  ASSERT_EQ(monitor->stopNotify(), 0);
  for (int i = 0; i < 50; ++i) video("a/" + std::to_string(i) + ".mp4");
  video("b/x.mp4");
  std::thread starter;
  {
    const StoreGuard lock;
    starter = std::thread([this] { EXPECT_EQ(monitor->startNotify(), 0); });
    ASSERT_TRUE(waitUntil([this] { return monitor->getWatchStatus().scanning == media("a"); }));
    EXPECT_EQ(monitor->stopScanner(), 0);
  }
  starter.join();
  EXPECT_LT(jobs().size(), 3U);
  EXPECT_EQ(monitor->getWatchStatus().scanning, "");
  EXPECT_EQ(state("b").state, WATCH_ON);
  ASSERT_EQ(monitor->startScanner(), 0);
  EXPECT_EQ(monitor->buildAllFolder(), 0);
  EXPECT_TRUE(waitUntil([this] { return jobs().size() == 51U; }));
}

TEST_F(NotifyAgent, StopEndsALongStart) {
  ASSERT_EQ(monitor->stopNotify(), 0);
  for (int i = 0; i < 50; ++i) video("a/" + std::to_string(i) + ".mp4");
  std::thread starter;
  {
    const StoreGuard lock;
    starter = std::thread([this] { EXPECT_EQ(monitor->startNotify(), 1); });
    ASSERT_TRUE(waitUntil([this] { return monitor->getWatchStatus().scanning == media("a"); }));
  }
  EXPECT_EQ(monitor->stopNotify(), 0);
  starter.join();
  EXPECT_LT(jobs().size(), 50U);
}

TEST_F(NotifyAgent, RestartsAndStopsMeetWithoutHanging) {
  for (int i = 0; i < 10; ++i) {
    std::thread restarter([this] { agent->restartKxmonitor(); });
    std::thread hangUp([] { kill(getpid(), SIGHUP); });
    agent->stop();
    restarter.join();
    hangUp.join();
    agent->stop();
    ASSERT_EQ(agent->start(), 0);
  }
}

TEST_F(NotifyAgent, AnEventsPathIsItsFolderAndItsName) {
  alignas(inotify_event) char buffer[sizeof(inotify_event) + 16] = {};
  auto* event = reinterpret_cast<inotify_event*>(buffer);
  strcpy(event->name, "x.mp4");
  event->wd = 1;
  EXPECT_EQ(agent->translateEvent(event), media("a/x.mp4"));
  event->wd = 4711;
  EXPECT_EQ(agent->translateEvent(event), "");
}

TEST(NotifyAgentBegin, ListsTheVolumesThatMayBeIndexed) {
  const bool isFirst = NasVol::getInstance() == nullptr;
  const kxtest::RecordingLog log;
  KxTransNotifyAgent::getInstance();
  ASSERT_NE(NasVol::getInstance(), nullptr);
  EXPECT_TRUE(NasVol::getInstance()->isIndexable("/home/films"));
  // It is made once in a process.
  EXPECT_EQ(log.count("add indexable vol dir for NasVol\n"), isFirst ? 1U : 0U);
}

// A user namespace has a limit of its own, so nobody else runs into it.
TEST(NotifyAgentLimit, TheLimitOfWatchesIsShownAndARescanFindsTheFiles) {
  constexpr int kNotPossible = 77;
  const pid_t child = fork();
  if (child == 0) {
    std::ofstream limit;
    if (unshare(CLONE_NEWUSER) == 0) limit.open("/proc/sys/user/max_inotify_watches");
    limit << 4 << std::flush;
    if (!limit) _exit(kNotPossible);
    class World : public WatchWorld {
     public:
      void TestBody() override {
        for (int i = 0; i < 6; ++i) folder("a/" + std::to_string(i));
        initMonitor();
        ASSERT_EQ(monitor->addFolder(media("a"), "4"), 0);
        ASSERT_EQ(monitor->startNotify(), 0);
        KxWatchedFolder watched = monitor->getWatchStatus().folders.at(0);
        EXPECT_EQ(watched.state, WATCH_PARTIAL);
        EXPECT_EQ(watched.error, ENOSPC);
        EXPECT_TRUE(log.hasPart("limit of watches reached"));
        EXPECT_TRUE(log.hasPart("[notify] " + media("a") + " is not watched completely"));
        for (int i = 0; i < 6; ++i) video("a/" + std::to_string(i) + "/x.mp4");
        EXPECT_TRUE(waitUntil([this] { return !jobs().empty(); }));
        monitor->buildAllFolder();
        EXPECT_TRUE(waitUntil([this] { return jobs().size() == 6; }));
        // More room: the next scan request watches the rest.
        std::ofstream("/proc/sys/user/max_inotify_watches") << 100 << std::flush;
        monitor->buildAllFolder();
        EXPECT_EQ(monitor->getWatchStatus().folders.at(0).state, WATCH_ON);
        for (int i = 0; i < 6; ++i) video("a/" + std::to_string(i) + "/y.mp4");
        EXPECT_TRUE(waitUntil([this] { return jobs().size() == 12; }));
      }
    };
    {
      World world;
      world.TestBody();
    }
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotPossible)
    GTEST_SKIP() << "no user namespaces here";
  EXPECT_EQ(status, 0);
}
