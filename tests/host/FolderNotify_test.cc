#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

class FolderNotify : public testing::Test {
 protected:
  FolderNotify() {
    sem_init(&m_wakeUp, 0, 0);
    EXPECT_EQ(m_notify.x_inotifytools_pre_init(&m_wakeUp), 0);
    EXPECT_EQ(m_notify.x_inotifytools_initialize(), 0);
  }
  void TearDown() override {
    m_notify.x_inotifytools_cleanup();
    sem_destroy(&m_wakeUp);
  }

  int watch(const std::string& path, const char* const* exclude = nullptr) {
    return m_notify.x_my_inotifytools_watch_recursively_with_exclude(path.c_str(), 0, exclude);
  }

  // "BITS PATH" of the next event with its folder, or "none" when nothing is waiting.
  std::string next(int seconds = 0) {
    const inotify_event* event = m_notify.x_inotifytools_next_event(seconds);
    if (event == nullptr) return "none";
    if ((event->mask & IN_Q_OVERFLOW) != 0) return "overflow";
    const char* folder = m_notify.x_inotifytools_filename_from_wd(event->wd);
    return std::string(bits(event->mask)) + " " + (folder == nullptr ? "?" : folder) + event->name;
  }

  static const char* bits(uint32_t mask) {
    switch (mask & ~static_cast<uint32_t>(IN_ISDIR)) {
    case IN_CREATE:
      return "create";
    case IN_MOVED_TO:
      return "in";
    case IN_MOVED_FROM:
      return "out";
    case IN_DELETE:
      return "delete";
    case IN_CLOSE_WRITE:
      return "written";
    default:
      return "other";
    }
  }

  sem_t m_wakeUp;
  TempDir m_dir;
  F2notify m_notify;
};

}  // namespace

TEST_F(FolderNotify, ReportsWhatHappensInAFolderAndItsSubFolders) {
  fs::create_directories(m_dir / "a/b");
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  writeFile(m_dir / "a/b/clip.mp4", "x");
  fs::rename(m_dir / "a/b/clip.mp4", m_dir / "clip.mp4");
  fs::remove(m_dir / "clip.mp4");
  EXPECT_EQ(next(), "create " + (m_dir / "a/b/clip.mp4"));
  EXPECT_EQ(next(), "written " + (m_dir / "a/b/clip.mp4"));
  EXPECT_EQ(next(), "out " + (m_dir / "a/b/clip.mp4"));
  EXPECT_EQ(next(), "in " + (m_dir / "clip.mp4"));
  EXPECT_EQ(next(), "delete " + (m_dir / "clip.mp4"));
  EXPECT_EQ(next(), "none");
}

TEST_F(FolderNotify, LeavesOutExcludedFoldersLinksAndTheServicesOwn) {
  for (const char* name : {"keep", "skip/below", "@Transcode", ".@__thumb/temp"})
    fs::create_directories(m_dir / name);
  fs::create_directory_symlink("/tmp", m_dir / "link");
  const std::string skip = m_dir / "skip";
  const char* const exclude[] = {skip.c_str(), nullptr};
  ASSERT_EQ(watch(m_dir.path().string(), exclude), 0);
  for (const char* name : {"skip/f", "skip/below/f", "@Transcode/f", ".@__thumb/temp/f", "keep/f"})
    writeFile(m_dir / name, "x");
  EXPECT_EQ(next(), "create " + (m_dir / "keep/f"));
  EXPECT_EQ(next(), "written " + (m_dir / "keep/f"));
  EXPECT_EQ(next(), "none");
}

TEST_F(FolderNotify, FailsForWhatIsNoFolder) {
  writeFile(m_dir / "file", "x");
  EXPECT_NE(watch(m_dir / "file"), 0);
  EXPECT_NE(watch(m_dir / "absent"), 0);
  EXPECT_NE(watch(""), 0);
}

TEST_F(FolderNotify, ReturnsAtTheTimeOut) {
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(next(1), "none");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(999));
}

TEST_F(FolderNotify, APostOfTheSemaphoreEndsTheWait) {
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  const auto start = std::chrono::steady_clock::now();
  std::thread poster([&] { sem_post(&m_wakeUp); });
  EXPECT_EQ(next(60), "none");
  poster.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST_F(FolderNotify, AnEventEndsTheWait) {
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  std::thread maker([&] { fs::create_directory(m_dir / "new"); });
  EXPECT_EQ(next(60), "create " + (m_dir / "new"));
  maker.join();
}

TEST_F(FolderNotify, GivesNoEventsOfARemovedWatch) {
  fs::create_directories(m_dir / "a/b");
  fs::create_directories(m_dir / "ab");
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  writeFile(m_dir / "a/b/before", "x");
  EXPECT_EQ(m_notify.x_inotifytools_remove_watch_by_filename((m_dir / "a").c_str()), 0);
  EXPECT_NE(m_notify.x_inotifytools_remove_watch_by_filename((m_dir / "a").c_str()), 0);
  writeFile(m_dir / "a/b/after", "x");
  writeFile(m_dir / "a/after", "x");
  writeFile(m_dir / "ab/other", "x");
  EXPECT_EQ(next(), "create " + (m_dir / "ab/other"));
  EXPECT_EQ(next(), "written " + (m_dir / "ab/other"));
  EXPECT_EQ(next(), "none");
}

TEST_F(FolderNotify, FollowsAFolderThatIsRenamed) {
  fs::create_directories(m_dir / "old/sub");
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  fs::rename(m_dir / "old", m_dir / "new");
  EXPECT_EQ(next(), "out " + (m_dir / "old"));
  EXPECT_EQ(next(), "in " + (m_dir / "new"));
  m_notify.x_inotifytools_replace_filename((m_dir / "old").c_str(), (m_dir / "new").c_str());
  writeFile(m_dir / "new/sub/f", "x");
  EXPECT_EQ(next(), "create " + (m_dir / "new/sub/f"));
}

TEST_F(FolderNotify, WatchingAMovedFolderAgainGivesItItsNewPath) {
  fs::create_directories(m_dir / "old/sub");
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  fs::rename(m_dir / "old", m_dir / "new");
  ASSERT_EQ(watch(m_dir / "new"), 0);
  next();
  next();
  writeFile(m_dir / "new/sub/f", "x");
  EXPECT_EQ(next(), "create " + (m_dir / "new/sub/f"));
}

TEST_F(FolderNotify, ForgetsADeletedFolder) {
  fs::create_directories(m_dir / "a/b");
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  fs::remove_all(m_dir / "a");
  EXPECT_EQ(next(), "delete " + (m_dir / "a/b"));
  EXPECT_EQ(next(), "delete " + (m_dir / "a"));
  EXPECT_EQ(next(), "none");
  EXPECT_EQ(m_notify.x_inotifytools_filename_from_wd(2), nullptr);
}

TEST_F(FolderNotify, TellsThatEventsWereLost) {
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  long limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_GT(limit, 0);
  if (limit > 100000) GTEST_SKIP() << "the event queue is too long here";
  // Opening and closing one file for writing gives one event each; equal neighbours are merged
  // by the kernel, so two files take turns.
  const int folder = open(m_dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (long i = 0; i <= limit; ++i) {
    const int fd = openat(folder, (i & 1) != 0 ? "a" : "b", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
  }
  close(folder);
  std::string last;
  long count = 0;
  for (std::string event = next(); event != "none"; event = next()) {
    last = event;
    ++count;
  }
  EXPECT_EQ(last, "overflow");
  EXPECT_EQ(count, limit + 1);
}

TEST_F(FolderNotify, CanBeOpenedAgainAfterACleanUp) {
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  m_notify.x_inotifytools_cleanup();
  EXPECT_NE(watch(m_dir.path().string()), 0);
  EXPECT_EQ(next(0), "none");
  ASSERT_EQ(m_notify.x_inotifytools_initialize(), 0);
  ASSERT_EQ(watch(m_dir.path().string()), 0);
  fs::create_directory(m_dir / "new");
  EXPECT_EQ(next(), "create " + (m_dir / "new"));
}

// A user namespace has a limit of its own, so nobody else runs into it.
TEST(FolderNotifyLimit, SaysThatTheLimitOfWatchesIsReached) {
  const TempDir dir;
  for (int i = 0; i < 5; ++i) fs::create_directory(dir / std::to_string(i));
  constexpr int kNotPossible = 77;
  const pid_t child = fork();
  if (child == 0) {
    std::ofstream limit;
    if (unshare(CLONE_NEWUSER) == 0) limit.open("/proc/sys/user/max_inotify_watches");
    limit << 3 << std::flush;
    if (!limit) _exit(kNotPossible);
    const RecordingLog log;
    F2notify notify;
    if (notify.x_inotifytools_initialize() != 0) _exit(1);
    const int result =
        notify.x_my_inotifytools_watch_recursively_with_exclude(dir.path().c_str(), 0, nullptr);
    if (result == 0 || errno != ENOSPC) _exit(2);
    _exit(log.hasPart("limit of watches reached at " + dir.path().string()) ? 0 : 3);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotPossible)
    GTEST_SKIP() << "no user namespaces here";
  EXPECT_EQ(status, 0);
}
