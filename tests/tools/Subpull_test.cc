#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/tools/ToolsTest.h"

namespace fs = std::filesystem;
using kxtest::makeClip;
using kxtest::readFile;
using kxtest::runTool;
using kxtest::StagedRoot;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

class Subpull : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.staged());
    writeFile(m_dir / "one.srt", "1\n00:00:00,000 --> 00:00:01,000\nfirst track\n\n");
    writeFile(m_dir / "two.srt", "1\n00:00:00,000 --> 00:00:01,000\nsecond track\n\n");
    makeClip(m_dir / "v.mp4", 160, 120, 1);
  }
  bool mux(const std::string& codec, const std::string& name) const {
    return kxtest::run({"ffmpeg",    "-v",
                        "error",     "-y",
                        "-i",        m_dir / "v.mp4",
                        "-i",        m_dir / "one.srt",
                        "-i",        m_dir / "two.srt",
                        "-map",      "0",
                        "-map",      "1",
                        "-map",      "2",
                        "-c",        "copy",
                        "-c:s",      codec,
                        m_dir / name})
        .has_value();
  }
  int pull(const std::string& name, const std::string& track) const {
    const auto words = "\"$0\" -i \"$1\" -track \"$2\" \"$3\" 2>\"$4\"";
    return runTool({"sh", "-c", words, m_root.program("subpull"), m_dir / name, track,
                    m_dir / "out.srt", m_dir / "err"})
        .exitStatus;
  }
  std::string error() const { return readFile(m_dir / "err"); }
  bool leavesNothing() const {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(m_dir.path()))
      if (entry.path().filename().string().starts_with("out.srt")) ++count;
    return count == 0;
  }

  StagedRoot m_root;
  TempDir m_dir;
};

}  // namespace

TEST_F(Subpull, WritesTheWantedTrackAsSubRip) {
  ASSERT_TRUE(mux("srt", "two.mkv"));
  ASSERT_EQ(pull("two.mkv", "1"), 0) << error();
  EXPECT_NE(readFile(m_dir / "out.srt").find("second track"), std::string::npos);
  EXPECT_EQ(pull("two.mkv", "0"), 0);
  EXPECT_NE(readFile(m_dir / "out.srt").find("first track"), std::string::npos);
  for (const char* other : {"ass", "webvtt"}) {
    ASSERT_TRUE(mux(other, "other.mkv"));
    EXPECT_EQ(pull("other.mkv", "1"), 0) << other << error();
    EXPECT_NE(readFile(m_dir / "out.srt").find("second track"), std::string::npos) << other;
  }
}

TEST_F(Subpull, RefusesSubtitlesThatArePictures) {
  // A track whose header says DVD subtitle; what it holds does not matter.
  ASSERT_TRUE(kxtest::run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                           "color=c=black@0:s=64x64:d=0.1,format=rgba", "-i", m_dir / "one.srt",
                           "-map", "1", "-c:s", "srt", m_dir / "text.mkv"}));
  std::string file = readFile(m_dir / "text.mkv");
  const size_t codec = file.find("S_TEXT/UTF8");
  ASSERT_NE(codec, std::string::npos);
  file.replace(codec, 11, std::string("S_VOBSUB") + std::string(3, '\0'));
  writeFile(m_dir / "picture.mkv", file);
  EXPECT_EQ(pull("picture.mkv", "0"), 1);
  EXPECT_NE(error().find("is stored as pictures and holds no text"), std::string::npos) << error();
  EXPECT_TRUE(leavesNothing());
}

TEST_F(Subpull, TellsWhatIsMissingAndLeavesNothing) {
  EXPECT_EQ(pull("v.mp4", "0"), 1);
  EXPECT_NE(error().find("has no subtitle track 0"), std::string::npos) << error();
  EXPECT_EQ(pull("absent.mkv", "0"), 1);
  EXPECT_NE(error().find("is no file"), std::string::npos) << error();
  EXPECT_EQ(pull("v.mp4", "x"), 2);
  EXPECT_EQ(pull("v.mp4", "-1"), 2);
  EXPECT_TRUE(leavesNothing());
}

TEST_F(Subpull, DoesNotFollowAPlaylistToOtherFiles) {
  ASSERT_TRUE(mux("srt", "secret.mkv"));
  writeFile(m_dir / "list.mkv", "ffconcat version 1.0\nfile '" + (m_dir / "secret.mkv") + "'\n");
  EXPECT_EQ(pull("list.mkv", "0"), 1);
  EXPECT_TRUE(leavesNothing());
}

TEST_F(Subpull, WritesThroughNoLinkThatOthersPlanted) {
  ASSERT_TRUE(mux("srt", "two.mkv"));
  writeFile(m_dir / "victim", "precious");
  fs::create_symlink(m_dir / "victim", m_dir / "out.srt");
  EXPECT_EQ(pull("two.mkv", "0"), 0) << error();
  EXPECT_FALSE(fs::is_symlink(m_dir / "out.srt"));
  fs::remove(m_dir / "out.srt");
  // Names that only the process number tells apart can be guessed.
  for (const char* middle : {"part", "log"}) {
    const auto words = "ln -s \"$5\" \"$3." + std::string(middle) +
                       ".$$\" && exec \"$0\" -i \"$1\" -track \"$2\" \"$3\" 2>\"$4\"";
    EXPECT_EQ(runTool({"sh", "-c", words, m_root.program("subpull"), m_dir / "two.mkv", "0",
                       m_dir / "out.srt", m_dir / "err", m_dir / "victim"})
                  .exitStatus,
              1)
        << middle;
    EXPECT_NE(error().find("cannot write"), std::string::npos) << error();
    EXPECT_FALSE(fs::exists(m_dir / "out.srt"));
  }
  EXPECT_EQ(readFile(m_dir / "victim"), "precious");
}
