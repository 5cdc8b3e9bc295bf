#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/tools/ToolsTest.h"

using kxtest::TempDir;
using kxtest::writeFile;

namespace {

const std::string kHead =
    "ffmpeg version 5.1\nInput #0, mov,mp4, from 'x.mp4':\n  Metadata:\n    title           : t\n"
    "  Duration: 00:01:40.00, start: 0.000000, bitrate: 100 kb/s\n";

std::string position(const std::string& time) {
  return "frame=  250 fps= 25 q=28.0 size=     256kB time=" + time + " bitrate= 209.7kbits/s\r";
}

class LogParse : public testing::Test {
 protected:
  int percent(const std::string& log) {
    writeFile(m_dir / "log", log);
    return percentOf(m_dir / "log");
  }
  static int percentOf(const std::string& file) {
    return kxtest::runTool({std::string(KX_BUILD_DIR) + "/tools/xlogparse.sh", file}).exitStatus;
  }
  TempDir m_dir;
};

}  // namespace

TEST_F(LogParse, ReportsThePositionInPercent) {
  EXPECT_EQ(percent(kHead + position("00:00:25.00")), 25);
  EXPECT_EQ(percent(kHead + position("00:00:25.99")), 25);
  EXPECT_EQ(percent(kHead + position("00:01:40.00")), 100);
}

TEST_F(LogParse, TakesTheLastOfManyPositions) {
  std::string log = kHead;
  for (int i = 10; i < 60; ++i) log += position("00:00:" + std::to_string(i) + ".50");
  EXPECT_EQ(percent(log), 59);
}

TEST_F(LogParse, IsZeroWhileNothingIsKnown) {
  EXPECT_EQ(percentOf(m_dir / "absent"), 0);
  EXPECT_EQ(percentOf(m_dir.path().string()), 0);
  EXPECT_EQ(percent(""), 0);
  EXPECT_EQ(percent(kHead), 0);
  EXPECT_EQ(percent(position("00:00:10.00")), 0);
  EXPECT_EQ(percent("  Duration: N/A, start: 0.0\n" + position("00:00:10.00")), 0);
  EXPECT_EQ(percent("  Duration: 00:00:00.00, start: 0.0\n" + position("00:00:10.00")), 0);
  EXPECT_EQ(percent(kHead + position("N/A") + position("-00:00:00.02")), 0);
}

TEST_F(LogParse, NeverExceedsAHundred) {
  EXPECT_EQ(percent(kHead + position("00:02:40.00")), 100);
  EXPECT_EQ(percent("  Duration: 00:00:01.00,\n" + position("99:00:00.00")), 100);
}

TEST_F(LogParse, ReadsAudioOnlyProgressAndLongMedia) {
  EXPECT_EQ(percent("  Duration: 10:00:00.00, start: 0\nsize=    1kB time=05:30:00.00 bitrate=1\r"),
            55);
  EXPECT_EQ(
      percent("  Duration: 123:00:00.00, start: 0\nsize=    1kB time=61:30:00.00 bitrate=1\r"), 50);
}

TEST_F(LogParse, TagsOfTheMediaCannotPassForProgress) {
  EXPECT_EQ(
      percent("    comment         :   Duration: 00:00:01.00,\n                    :   Duration: "
              "00:00:02.00,\n    title           : frame= time=00:01:00.00 \n" +
              kHead + position("00:00:10.00") +
              "\n    title           : frame=1 time=00:01:00.00 x\n"),
      10);
}

TEST_F(LogParse, KeepsTheLastKnownPositionWhenTheEndIsCutOrUnknown) {
  EXPECT_EQ(percent(kHead + position("00:00:40.00") + "frame=  251 fps= 25 q=28.0 size=  25"), 40);
  EXPECT_EQ(percent(kHead + position("00:00:40.00") + position("N/A")), 40);
}

// The middle is a hole of the file, so that only reading it would take long.
TEST_F(LogParse, ReadsOnlyTheStartAndTheEndOfALargeLog) {
  const std::string log = m_dir / "log";
  writeFile(log, kHead);
  std::filesystem::resize_file(log, std::uintmax_t{64} << 30);
  std::ofstream(log, std::ios::app) << "\n" << position("00:00:33.00");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(percentOf(log), 33);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(LogParse, ReadsWhatTheEncoderReallyWrites) {
  kxtest::makeClip(m_dir / "in.mp4", 320, 240, 2.0);
  const std::string command =
      "ffmpeg -nostdin -y -i " + (m_dir / "in.mp4") + " -f null - 2>" + (m_dir / "log");
  ASSERT_TRUE(kxhost::succeeded(kxtest::runTool({"/bin/sh", "-c", command})));
  EXPECT_GE(percentOf(m_dir / "log"), 95);
  const std::string half =
      "ffmpeg -nostdin -y -i " + (m_dir / "in.mp4") + " -t 1 -f null - 2>" + (m_dir / "log");
  ASSERT_TRUE(kxhost::succeeded(kxtest::runTool({"/bin/sh", "-c", half})));
  EXPECT_NEAR(percentOf(m_dir / "log"), 50, 5);
}
