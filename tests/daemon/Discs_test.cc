#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "tests/daemon/DaemonRun.h"
#include "tests/support/Discs.h"

namespace fs = std::filesystem;
using namespace kxtest;
using testing::HasSubstr;
using testing::IsEmpty;

// Discs through the real daemon and its client.

namespace {

class DaemonDiscs : public testing::Test {
 protected:
  DaemonDiscs() {
    root.install("udfserve");
    const DvdFolder dvd(root.media("Film"));
    dvd.addTitleSet(1, {"blue"}, 0.5);
    dvd.addTitleSet(2, {"red", "green"}, 2);
  }

  std::string image() const {
    const std::string path = root.media("Film.iso");
    return canMountImages() && makeImage(root.media("Film"), path, Image::Udf) ? path : "";
  }

  // Programs that name the root in their arguments, but for the one given.
  std::vector<std::string> programs(pid_t except) const {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const std::string name = entry.path().filename();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      const std::string arguments = readFile(entry.path() / "cmdline");
      if (arguments.find(root.path()) != std::string::npos && name != std::to_string(except))
        found.push_back(arguments);
    }
    return found;
  }

  void expectNothingLeft(pid_t except) const {
    EXPECT_TRUE(waitUntil([&] { return programs(except).empty(); }))
        << testing::PrintToString(programs(except));
    EXPECT_THAT(mountsBelow(root.path()), IsEmpty());
    EXPECT_TRUE(fs::is_empty(root / "run/xcode/iso"));
    EXPECT_THAT(root.leftovers(), IsEmpty());
  }

  bool waitForResult(const DaemonRun& daemon, int64_t id) const {
    return waitUntil([&] { return daemon.status(id) == 1 || daemon.status(id) == 2; },
                     std::chrono::seconds(60));
  }

  DaemonRoot root;
};

}  // namespace

TEST_F(DaemonDiscs, AnImageThatAKilledDaemonHadMountedIsReleasedAndDoneAgain) {
  const std::string source = image();
  if (source.empty()) GTEST_SKIP() << "no images here";
  root.slowEncoder();
  int64_t id = 0;
  std::vector<std::string> folders;
  {
    DaemonRun daemon(root);
    id = daemon.add(source);
    ASSERT_GT(daemon.waitForEncoder(), 0);
    ASSERT_FALSE(mountsBelow(root.path()).empty());
    for (const auto& entry : fs::directory_iterator(root / "run/xcode/iso"))
      folders.push_back(entry.path());
    daemon.end(SIGKILL);
  }
  ASSERT_FALSE(folders.empty());
  root.setEncoder("", "");
  DaemonRun daemon(root);
  for (const std::string& folder : folders) EXPECT_FALSE(fs::exists(folder)) << folder;
  ASSERT_TRUE(waitForResult(daemon, id));
  EXPECT_EQ(daemon.status(id), 1) << daemon.show(id).dump();
  EXPECT_EQ(colourAt(root.media("@Transcode/Film.iso.mobile240p.mp4"), 0.3), "red");
  EXPECT_EQ(colourAt(root.media("@Transcode/Film.iso.mobile240p.mp4"), 3), "green");
  expectNothingLeft(daemon.pid());
}

// The servers end with the daemon. Should they not, because the kernel mounted the image or a
// server did not hear the signal, the next daemon releases what is still mounted.
TEST_F(DaemonDiscs, AnImageThatIsStillMountedAfterAKillIsReleasedAtTheStart) {
  const std::string source = image();
  if (source.empty()) GTEST_SKIP() << "no images here";
  const std::string stale = root / "run/xcode/iso/999999999_1_abcdef";
  fs::create_directories(stale);
  ASSERT_TRUE(run({std::string(KX_BUILD_DIR) + "/tools/udfserve", source, stale, "-o", "ro"}));
  ASSERT_TRUE(fs::exists(stale + "/VIDEO_TS/VIDEO_TS.IFO"));
  DaemonRun daemon(root);
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_THAT(daemon.log(), HasSubstr("released 1 disc images of an earlier run"));
  expectNothingLeft(daemon.pid());
}

TEST_F(DaemonDiscs, CancellingAndEndingReleaseTheImage) {
  const std::string source = image();
  if (source.empty()) GTEST_SKIP() << "no images here";
  root.slowEncoder();
  DaemonRun daemon(root);
  const int64_t id = daemon.add(source);
  ASSERT_GT(daemon.waitForEncoder(), 0);
  EXPECT_EQ(daemon.result(KX_CMD_CANCEL_JOB, 0, {{"id", id}}), 0);
  EXPECT_TRUE(waitUntil([&] { return daemon.status(id) == 5 && daemon.units().empty(); }));
  expectNothingLeft(daemon.pid());

  const int64_t other = daemon.add(source);
  EXPECT_GT(other, id);
  ASSERT_GT(daemon.waitForEncoder(), 0);
  EXPECT_FALSE(mountsBelow(root.path()).empty());
  const pid_t pid = daemon.pid();
  daemon.end(SIGTERM);
  expectNothingLeft(pid);
}

TEST_F(DaemonDiscs, TheClientAddsFoldersAndImages) {
  const std::string source = image();
  DaemonRun daemon(root);
  const auto client = [this](std::vector<std::string> words) {
    const std::string program = std::string(KX_BUILD_DIR) + "/bin/xcodectl";
    words.insert(words.begin(), {program, "--root", root.path()});
    return run(words);
  };
  EXPECT_TRUE(client({"add", root.media("Film/"), "-p", "mobile240p", "--wait"})) << daemon.log();
  EXPECT_EQ(colourAt(root.media("@Transcode/Film.mobile240p.mp4"), 3), "green");
  // A disc that only has its tables.
  fs::create_directories(root.media("Empty/VIDEO_TS"));
  EXPECT_FALSE(client({"add", root.media("Empty"), "-p", "mobile240p", "--wait"}));
  const auto shown = client({"show", "2"});
  ASSERT_TRUE(shown);
  EXPECT_THAT(*shown, HasSubstr("the disc has no VIDEO_TS/VIDEO_TS.IFO"));
  if (source.empty()) GTEST_SKIP() << "no images here";
  EXPECT_TRUE(client({"add", source, "-p", "mobile240p", "--wait"})) << daemon.log();
  EXPECT_EQ(colourAt(root.media("@Transcode/Film.iso.mobile240p.mp4"), 3), "green");
  expectNothingLeft(daemon.pid());
}
