#include "resources/OutputPlacement.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using namespace runner;
using kxtest::readFile;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

bool usable(const std::string&) {
  return true;
}

void setTime(const std::string& path, time_t time) {
  const utimbuf times{time, time};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}

}  // namespace

class Placement : public testing::Test {
 protected:
  Placement() {
    writeFile(source.path(), "source");
    setTime(source.path(), 1000000);
    links = OutputFolder::make(source.folder, kLinkFolder);
    visible = OutputFolder::make(source.folder, kVisibleFolder);
    temp = OutputFolder::make(source.folder, kTempFolder);
  }

  VideoPlacement placement(int rotation = 0) {
    return VideoPlacement(source, visible, links, "mobile240p", rotation);
  }
  SourceStamp stamp() { return *stampOf(source.path()); }
  std::string put(VideoPlacement placement, const std::string& contents = "result") {
    TemporaryFile file(temp, ".mp4");
    writeFile(file.path(), contents);
    return placement.put(file);
  }
  std::string result(const std::string& rotation = "") {
    return dir / ("@Transcode/clip.mov.mobile240p" + rotation + ".mp4");
  }
  std::string link() { return dir / ".@__thumb/transcode/clip.mov.mobile240p"; }
  bool tempIsEmpty() { return fs::is_empty(dir / ".@__thumb/temp"); }

  TempDir dir;
  SourceName source{dir / "", "clip.mov"};
  OutputFolder links, visible, temp;
  RecordingLog log;
};

TEST_F(Placement, AResultGetsItsNameTheSourcesTimeAndALink) {
  EXPECT_EQ(put(placement()), "");
  EXPECT_EQ(readFile(result()), "result");
  EXPECT_EQ(stampOf(result())->modified, 1000000);
  EXPECT_EQ(fs::read_symlink(link()), "../../@Transcode/clip.mov.mobile240p.mp4");
  EXPECT_EQ(readFile(link()), "result");
  EXPECT_TRUE(tempIsEmpty());
}

TEST_F(Placement, ATemporaryFileIsRemovedUnlessItWasPutInPlace) {
  {
    TemporaryFile file(temp, ".mp4");
    EXPECT_TRUE(file.path().ends_with(".mp4"));
    writeFile(file.path(), "half");
    writeFile(file.remuxPath(), "half");
  }
  EXPECT_TRUE(tempIsEmpty());
  EXPECT_FALSE(log.hasPart("remove temp file"));
}

TEST_F(Placement, ARemuxedFileTakesThePlaceOfTheFirst) {
  TemporaryFile file(temp, ".mp4");
  writeFile(file.path(), "rotated");
  writeFile(file.remuxPath(), "upright");
  EXPECT_TRUE(file.takeRemux());
  EXPECT_EQ(readFile(file.path()), "upright");
  EXPECT_TRUE(log.has("remux success, rename " + file.remuxPath() + " -> " + file.path() + "\n"));
  EXPECT_FALSE(file.takeRemux());
  EXPECT_TRUE(log.has("rename " + file.remuxPath() + " -> " + file.path() + " FAIL\n"));
  EXPECT_EQ(readFile(file.path()), "upright");
}

TEST_F(Placement, AResultOfTheSameTimeIsReused) {
  put(placement());
  log.clear();
  EXPECT_TRUE(placement().reuse(stamp(), usable));
  EXPECT_TRUE(log.texts().empty());
}

TEST_F(Placement, AReusedResultGetsItsLinkBack) {
  put(placement());
  fs::remove(link());
  EXPECT_TRUE(placement().reuse(stamp(), usable));
  EXPECT_TRUE(log.has(result() + " is already exist, we create symlink for it\n"));
  EXPECT_EQ(fs::read_symlink(link()), "../../@Transcode/clip.mov.mobile240p.mp4");
  fs::remove(link());
  fs::create_symlink("elsewhere", link());
  EXPECT_TRUE(placement().reuse(stamp(), usable));
  EXPECT_EQ(fs::read_symlink(link()), "../../@Transcode/clip.mov.mobile240p.mp4");
}

TEST_F(Placement, AResultOfAnotherTimeStaysUntilItIsReplaced) {
  put(placement(), "old");
  setTime(source.path(), 2000000);
  EXPECT_FALSE(placement().reuse(stamp(), usable));
  EXPECT_TRUE(log.has(4, "KxTranscodeUnit2",
                      "mTime of \"" + source.path() + "\" and \"" + result() +
                          "\" are not same, we remove it and reTranscode\n"));
  EXPECT_EQ(readFile(result()), "old");
  EXPECT_EQ(put(placement(), "new"), "");
  EXPECT_EQ(readFile(result()), "new");
  EXPECT_EQ(stampOf(result())->modified, 2000000);
}

TEST_F(Placement, AnUnusableResultIsNotReused) {
  put(placement());
  EXPECT_FALSE(placement().reuse(stamp(), [](const std::string&) { return false; }));
  EXPECT_TRUE(fs::exists(result()));
}

TEST_F(Placement, AFileInPlaceOfTheLinkIsNeverRemoved) {
  writeFile(link(), "a user's file");
  EXPECT_EQ(put(placement()), "");
  EXPECT_EQ(readFile(link()), "a user's file");
  EXPECT_EQ(readFile(result()), "result");
  EXPECT_TRUE(log.has("remove symlink " + link() + " fail\n"));
  EXPECT_TRUE(log.has(
      2, "KxTranscodeUnit2",
      "make symlink " + link() +
          " -> ../../@Transcode/clip.mov.mobile240p.mp4 fail:" + std::to_string(EEXIST) + "\n"));
  EXPECT_FALSE(placement().reuse(stamp(), usable));
  EXPECT_TRUE(log.has("remove sympath " + link() + " fail\n"));
  EXPECT_TRUE(log.has(2, "KxTranscodeUnit2",
                      "make symlink " + link() +
                          " -> ../../@Transcode/clip.mov.mobile240p.mp4 fail:" +
                          std::to_string(EEXIST) + ", we transcode it again\n"));
}

TEST_F(Placement, ResultsOfOtherRotationsMakeWayForACompleteOne) {
  put(placement(90));
  put(placement(0));
  ASSERT_TRUE(fs::exists(result(".90")));
  EXPECT_FALSE(log.hasPart("so we remove"));
  VideoPlacement turned = placement(180);
  turned.noteStaleRotations();
  EXPECT_TRUE(log.has("rotation=180, so we remove " + result(".90") + "\n"));
  EXPECT_FALSE(log.hasPart("so we remove " + result(".270")));
  EXPECT_TRUE(fs::exists(result(".90")));
  EXPECT_EQ(put(turned), "");
  EXPECT_FALSE(fs::exists(result(".90")));
  EXPECT_TRUE(fs::exists(result(".180")));
  EXPECT_TRUE(fs::exists(result()));
  EXPECT_EQ(fs::read_symlink(link()), "../../@Transcode/clip.mov.mobile240p.180.mp4");
}

TEST_F(Placement, ATemporaryFileThatCannotBeRemovedIsLogged) {
  std::string path;
  {
    TemporaryFile file(temp, ".mp4");
    path = file.path();
    fs::create_directory(path);
    EXPECT_NE(file.moveTo(visible, "there/is/no/such/folder"), 0);
    EXPECT_TRUE(log.has("remove tmp file " + path + " fail:" + std::to_string(EISDIR) + "\n"));
  }
  EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "remove temp file " + path + " fail\n"));
}

TEST_F(Placement, ATimeThatCannotBeSetIsLogged) {
  fs::remove(source.path());
  EXPECT_EQ(put(placement()), "");
  EXPECT_TRUE(log.has(2, "KxTranscodeUnit2",
                      "set MTime " + source.path() + " <=> " + result() + " fail\n"));
}

TEST_F(Placement, AFolderInTheWayIsAnObstacle) {
  fs::create_directory(result());
  EXPECT_EQ(placement().obstacle(), result() + " is a folder");
  EXPECT_NE(put(placement()), "");
  EXPECT_TRUE(log.hasPart(" -> " + result() + " fail:" + std::to_string(EISDIR) + "\n"));
  for (const auto& line : log.lines()) EXPECT_EQ(line.level, 2) << line.text;
  EXPECT_TRUE(tempIsEmpty());
}

TEST_F(Placement, ANameThatIsTooLongIsAnObstacle) {
  const SourceName longName{dir / "", std::string(250, 'x')};
  const VideoPlacement placement(longName, visible, links, "mobile240p", 0);
  EXPECT_NE(placement.obstacle().find("File name too long"), std::string::npos);
}

TEST_F(Placement, LinksInPlaceOfTheFoldersAreRefused) {
  TempDir elsewhere;
  TempDir media;
  fs::create_symlink(elsewhere.path(), media / "@Transcode");
  EXPECT_FALSE(OutputFolder::make(media / "", kVisibleFolder).valid());
  fs::create_symlink(elsewhere.path(), media / ".@__thumb");
  EXPECT_FALSE(OutputFolder::make(media / "", kTempFolder).valid());
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
  writeFile(media / "Video2audio", "a file");
  EXPECT_FALSE(OutputFolder::make(media / "", kAudioFolder).valid());
}

TEST_F(Placement, AResultNeverGoesThroughALinkOfItsName) {
  TempDir elsewhere;
  writeFile(elsewhere / "precious", "precious");
  fs::create_symlink(elsewhere / "precious", result());
  setTime(elsewhere / "precious", 500);
  EXPECT_FALSE(placement().reuse(stamp(), usable));
  EXPECT_EQ(put(placement()), "");
  EXPECT_EQ(readFile(elsewhere / "precious"), "precious");
  EXPECT_EQ(stampOf(elsewhere / "precious")->modified, 500);
  EXPECT_FALSE(fs::is_symlink(result()));
}

TEST_F(Placement, SoundGoesToItsOwnFolder) {
  const OutputFolder folder = OutputFolder::make(source.folder, kAudioFolder);
  const AudioPlacement audio(source, folder);
  EXPECT_EQ(audio.obstacle(), "");
  EXPECT_FALSE(audio.reuse(stamp(), usable));
  TemporaryFile file(temp, ".mp3");
  writeFile(file.path(), "sound");
  EXPECT_EQ(audio.put(file), "");
  EXPECT_EQ(readFile(dir / "Video2audio/clip.mp3"), "sound");
  EXPECT_EQ(stampOf(dir / "Video2audio/clip.mp3")->modified, 1000000);
  EXPECT_TRUE(audio.reuse(stamp(), usable));
  setTime(source.path(), 2000000);
  EXPECT_FALSE(audio.reuse(stamp(), usable));
}
