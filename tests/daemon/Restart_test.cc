#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

#include "KxDBTask.h"
#include "tests/daemon/DaemonRun.h"
#include "tests/daemon/Records.h"
#include "tests/runner/LongFilm.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace kxtest;

namespace {

constexpr uint64_t kOriginal = 32;
constexpr size_t kPieces = 11;

// A long film under the real daemon. Encoders of pieces from the sixth on do not end.
class Restart : public testing::Test {
 protected:
  void SetUp() override {
    root.configure("SEGMENT=1\nMAX_UNITS=1\n");
    LongFilm kind;
    kind.rate = "2";
    kind.video = {"-c:v", "libx264", "-preset", "ultrafast", "-g", "40"};
    kind.sampleRate = 0;
    makeLongFilm(kind, root.media("film.mp4"));
    encoderAfter("case \"$*\" in *-threads*segment_0000[5-9]*) exec sleep 600 ;; esac");
  }

  void encoderAfter(const std::string& body) {
    root.setEncoder("case \"$*\" in *-encoders*) exec ffmpeg \"$@\" ;; esac\necho \"$*\" >>'" +
                        commandFile() + "'\n" + body +
                        "\nexec '" KX_BUILD_DIR "/tools/ffmpeg' \"$@\"",
                    "");
  }
  std::string commandFile() const { return root / "commands"; }
  size_t commands(const std::string& part) const {
    size_t count = 0;
    std::istringstream lines(readFile(commandFile()));
    for (std::string line; std::getline(lines, line);)
      if (line.find(part) != std::string::npos) ++count;
    return count;
  }
  size_t pieceEncoders() const { return commands("-threads"); }
  std::vector<std::string> checkpoints() const {
    std::vector<std::string> found;
    for (const std::string& path : root.leftovers())
      if (path.find("/checkpoint_") != std::string::npos) found.push_back(path);
    return found;
  }
  size_t keptPieces() const {
    size_t count = 0;
    std::error_code ignored;
    for (const std::string& path : checkpoints()) {
      for (const auto& entry : fs::directory_iterator(path + "/original", ignored))
        count += entry.path().filename().string().starts_with("merge_") ? 1U : 0U;
    }
    return count;
  }
  bool waitForFivePieces() const {
    return waitUntil([this] { return keptPieces() == 5 && commands("segment_00006") == 1; }, 60s);
  }

  // Ends the daemon in the middle of the job, starts another one, and lets that finish.
  void interrupt(int signalNumber) {
    int64_t id = -1;
    {
      DaemonRun daemon(root);
      id = daemon.add(root.media("film.mp4"), {{"jobFlag", kOriginal}});
      ASSERT_TRUE(waitForFivePieces());
      daemon.end(signalNumber);
    }
    EXPECT_EQ(keptPieces(), 5U);
    encoderAfter("");
    fs::remove(commandFile());
    const DaemonRun daemon(root);
    ASSERT_TRUE(waitUntil([&] { return daemon.status(id) == JOB_DONE; }, 60s))
        << daemon.show(id).dump();
    EXPECT_EQ(pieceEncoders(), kPieces - 5);
    EXPECT_EQ(commands("-f segment"), 0U);
    EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
    const std::vector<int> numbers = pictureNumbers(daemon.show(id).at("outputs").at(0).at("path"));
    EXPECT_EQ(numbers.size(), 2410U);
    for (size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(numbers[i], static_cast<int>(i));
    printf("signal %d: 5 of %zu pieces were made before, %zu after, 0 made twice\n", signalNumber,
           kPieces, pieceEncoders());
  }

  DaemonRoot root;
};

}  // namespace

TEST_F(Restart, AfterAKillAJobDoesOnlyTheMissingPieces) {
  interrupt(SIGKILL);
}

TEST_F(Restart, AfterAnOrderlyEndAJobDoesOnlyTheMissingPieces) {
  interrupt(SIGTERM);
}

TEST_F(Restart, WhatACancelledJobKeptGoes) {
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("film.mp4"), {{"jobFlag", kOriginal}});
  ASSERT_TRUE(waitForFivePieces());
  EXPECT_EQ(daemon.result(KX_CMD_CANCEL_JOB, 0, {{"id", id}}), 0);
  EXPECT_EQ(checkpoints(), std::vector<std::string>{});
  EXPECT_TRUE(waitUntil([&] { return root.leftovers().empty(); }, 5s));
}

TEST_F(Restart, WhatADeletedJobKeptGoes) {
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("film.mp4"), {{"jobFlag", kOriginal}});
  ASSERT_TRUE(waitForFivePieces());
  EXPECT_EQ(daemon.result(KX_CMD_DELETE_JOB, 0, {{"id", id}}), 0);
  EXPECT_EQ(checkpoints(), std::vector<std::string>{});
}
