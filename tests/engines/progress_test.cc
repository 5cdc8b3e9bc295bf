#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "KxMusicTranscoder.h"
#include "KxTranscoder.h"
#include "engines/ProgressReader.h"
#include "tests/support/TestSupport.h"

using engines::readProgress;
using kxtest::PrivateRoot;
using kxtest::readFile;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

constexpr const char* kParser = "/usr/local/medialibrary/bin/xlogparse.sh";

class Progress : public testing::Test {
 protected:
  void SetUp() override { writeFile(log(), "frame=1\n"); }
  std::string log() const { return m_dir / "._progress.log"; }

  PrivateRoot m_root;
  TempDir m_dir;
};

}  // namespace

TEST_F(Progress, TheExitStatusOfTheLogParserIsThePercentage) {
  for (const int status : {0, 1, 37, 100}) {
    m_root.script(kParser, "exit " + std::to_string(status) + "\n");
    EXPECT_EQ(readProgress(log(), 50), status);
  }
}

TEST_F(Progress, TheLogIsTheParsersOnlyArgument) {
  m_root.script(kParser, "echo \"$#:$1\" > " + m_dir / "seen" + "\n");
  EXPECT_EQ(readProgress(log(), 50), 0);
  EXPECT_EQ(readFile(m_dir / "seen"), "1:" + log() + "\n");
}

TEST_F(Progress, AStatusAboveOneHundredIsZeroAndNotOneHundred) {
  for (const int status : {101, 127, 255}) {
    m_root.script(kParser, "exit " + std::to_string(status) + "\n");
    EXPECT_EQ(readProgress(log(), 50), 0) << status;
  }
}

TEST_F(Progress, AParserThatFailsToRunGivesZero) {
  EXPECT_EQ(readProgress(log(), 50), 0);
  m_root.script(kParser, "kill -9 $$\n");
  EXPECT_EQ(readProgress(log(), 50), 0);
}

TEST_F(Progress, WithoutALogTheLastValueStays) {
  m_root.script(kParser, "exit 77\n");
  EXPECT_EQ(readProgress("", 42), 42);
  EXPECT_EQ(readProgress(m_dir / "gone.log", 42), 42);
}

TEST_F(Progress, ANewTranscoderIsAtZero) {
  m_root.script(kParser, "exit 77\n");
  EXPECT_EQ(KxTranscoder().getProgress(), 0);
  EXPECT_EQ(KxMusicTranscoder().getProgress(), 0);
}
