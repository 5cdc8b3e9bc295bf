#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "KxHostPlatform.h"
#include "engines/ExtractedSubtitle.h"
#include "engines/WorkFolder.h"
#include "tests/engines/EngineFixture.h"

namespace fs = std::filesystem;
using kxtest::makeClip;
using kxtest::readFile;
using kxtest::RecordingLog;
using kxtest::writeFile;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

bool loggedInInit(const RecordingLog& log, const std::string& text) {
  for (const auto& line : log.lines()) {
    if (line.level == 5 && line.source == "KxTranscoder" && line.func == "init" &&
        line.text == text)
      return true;
  }
  return false;
}

bool loggedIn(const RecordingLog& log, const std::string& function, const std::string& text) {
  for (const auto& line : log.lines())
    if (line.func == function && line.text == text) return true;
  return false;
}

// The words of a command that a recording program wrote, one a line.
std::vector<std::string> wordsOf(const std::string& path) {
  std::vector<std::string> words;
  std::istringstream text(readFile(path));
  for (std::string line; std::getline(text, line);) words.push_back(line);
  return words;
}

}  // namespace

class TranscoderSetup : public kxtest::EngineTest {
 protected:
  TranscoderSetup() { makeClip(media("clip.mp4"), 64, 48, 0.2); }

  TranscodeParam clipJob() const {
    TranscodeParam param = job(media("clip.mp4"));
    param.m_aid = 0;
    return param;
  }
};

TEST_F(TranscoderSetup, APipedSourceIsRefusedBeforeTheSourceIsExamined) {
  TranscodeParam param = job("/does/not/exist");
  param.m_isPipeIn = true;
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_THAT(log.texts(), ElementsAre("we do not support pipe in mode for now"));
  EXPECT_TRUE(loggedInInit(log, "we do not support pipe in mode for now"));
}

TEST_F(TranscoderSetup, AMissingSourceFails) {
  TranscodeParam param = job("/does/not/exist");
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_THAT(log.texts(), ElementsAre("pipeout=false, outFile.empty()=false\n",
                                       "m_inFile /does/not/exist is invalid\n"));
}

TEST_F(TranscoderSetup, ASourceThatIsNoMediaFails) {
  writeFile(media("text.mp4"), "no pictures here");
  TranscodeParam param = job(media("text.mp4"));
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_TRUE(loggedInInit(log, "mediainfo init fail\n"));
}

TEST_F(TranscoderSetup, TheProfileCompletesTheRecordAndTheCallersStaysAsItIs) {
  TranscodeParam param = clipJob();
  param.m_formatId = 0;
  param.m_aCodecId = 0;
  param.m_profile = "mobile240p.xml";
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_TRUE(loggedInInit(log, "set transcode config as 240p\n"));
  EXPECT_TRUE(loggedInInit(log, "set faststart = true for mp4\n"));
  EXPECT_EQ(transcoder.getParam().m_width, 360);
  EXPECT_EQ(transcoder.getParam().m_vProfile, 77);
  EXPECT_EQ(transcoder.getParam().m_aCodecId, KX_CODEC_AAC);
  EXPECT_TRUE(transcoder.getParam().m_isFastStart);
  EXPECT_EQ(param.m_width, 0);
  EXPECT_EQ(param.m_formatId, 0);
}

TEST_F(TranscoderSetup, AnUnknownProfileNeedsAFormat) {
  TranscodeParam param = clipJob();
  param.m_profile = "other.xml";
  {
    KxTranscoder transcoder;
    EXPECT_EQ(transcoder.init(param), 0);
  }
  param.m_formatId = 0;
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_TRUE(loggedInInit(log, "unknow format\n"));
}

TEST_F(TranscoderSetup, ASourceOfAacKeepsAacOnAPlatformThatCannotEncodeIt) {
  fs::remove(root.file("/usr/local/medialibrary/bin/ffmpeg"));
  ASSERT_EQ(MyUtil_hasAACSupport(), 0);
  makeClip(media("mp3.mkv"), 64, 48, 0.2, {"-c:a", "libmp3lame"});
  TranscodeParam param = clipJob();
  param.m_aCodecId = 0;
  param.m_profile = "mobile240p.xml";
  KxTranscoder aac;
  ASSERT_EQ(aac.init(param), 0);
  EXPECT_EQ(aac.getParam().m_aCodecId, KX_CODEC_AAC);
  param.m_inFile = media("mp3.mkv");
  KxTranscoder mp3;
  ASSERT_EQ(mp3.init(param), 0);
  EXPECT_EQ(mp3.getParam().m_aCodecId, KX_CODEC_MP3);
}

TEST_F(TranscoderSetup, TheWorkFolderIsPrivateAndHoldsTheProgressLog) {
  TranscodeParam param = clipJob();
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  const std::string folder = transcoder.getWorkFolder();
  EXPECT_THAT(folder,
              StartsWith(volume() + "/.system/transcode/" + std::to_string(getpid()) + "_"));
  EXPECT_THAT(folder, testing::EndsWith("/"));
  EXPECT_EQ(transcoder.getProgressLogPath(), folder + "._progress.log");
  struct stat status {};
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST_F(TranscoderSetup, AWorkFolderNameThatIsTakenFails) {
  const std::string parent = volume() + "/.system/transcode/";
  EXPECT_EQ(engines::makeWorkFolder(parent, "name"), parent + "name/");
  RecordingLog log;
  EXPECT_EQ(engines::makeWorkFolder(parent, "name"), "");
  EXPECT_TRUE(loggedInInit(log, "name name is already exist, init fail"));
}

TEST_F(TranscoderSetup, AWorkFolderThatCannotBeMadeFails) {
  writeFile(volume() + "/.system", "in the way");
  TranscodeParam param = clipJob();
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_THAT(log.texts().back(),
              MatchesRegex("mymkdir " + volume() + "/.system/transcode/.* fail\n"));
}

TEST_F(TranscoderSetup, WithoutAMediaDataDirectoryItFails) {
  root.write("/etc/config/medialibrary.conf", "[OPTIONS]\n");
  TranscodeParam param = clipJob();
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_TRUE(loggedInInit(log, "can not get hdd path\n"));
}

TEST_F(TranscoderSetup, AnOutputIsNeededUnlessItIsPiped) {
  TranscodeParam param = clipJob();
  param.m_outFile = "";
  RecordingLog log;
  KxTranscoder without;
  EXPECT_EQ(without.init(param), 1);
  EXPECT_TRUE(loggedInInit(log, "pipeout=false, outFile.empty()=true\n"));
  EXPECT_EQ(log.texts().back(), "output parameter error\n");
  param.m_isPipeOut = true;
  KxTranscoder piped;
  EXPECT_EQ(piped.init(param), 0);
  EXPECT_TRUE(loggedInInit(log, "pipeout=true, outFile.empty()=true\n"));
}

TEST_F(TranscoderSetup, ABareOutputNameLiesInTheWorkArea) {
  TranscodeParam param = clipJob();
  param.m_outFile = "name.mp4";
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_EQ(transcoder.getParam().m_outFile, volume() + "/.system/transcode/name.mp4");
}

TEST_F(TranscoderSetup, WithoutASubtitleTrackNothingIsExtracted) {
  TranscodeParam param = clipJob();
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_FALSE(log.hasPart("intra subtitle"));
  EXPECT_FALSE(fs::exists(media(".@__thumb")));
}

TEST_F(TranscoderSetup, AnExtractedSubtitleIsUsedAgain) {
  const std::string subtitle = engines::extractedSubtitlePath(media("clip.mp4"), 2);
  EXPECT_EQ(subtitle, media(".@__thumb/.genSub/clip.mp4.si2.srt"));
  fs::create_directories(fs::path(subtitle).parent_path());
  writeFile(subtitle, "1\n");
  TranscodeParam param = clipJob();
  param.m_sid = 2;
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_TRUE(loggedInInit(log, "intra subtitle " + subtitle + " exist\n"));
  EXPECT_EQ(transcoder.getParam().m_subtitle, subtitle);
}

TEST_F(TranscoderSetup, ALinkIsNoExtractedSubtitle) {
  root.script("/usr/local/medialibrary/bin/subpull", "echo text > \"$5\"\n");
  const std::string subtitle = engines::extractedSubtitlePath(media("clip.mp4"), 0);
  fs::create_directories(fs::path(subtitle).parent_path());
  writeFile(media("secret"), "of somebody else");
  fs::create_symlink(media("secret"), subtitle);
  TranscodeParam param = clipJob();
  param.m_sid = 0;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_EQ(transcoder.getParam().m_subtitle, subtitle);
  EXPECT_EQ(readFile(subtitle), "text\n");
  EXPECT_EQ(readFile(media("secret")), "of somebody else");
}

TEST_F(TranscoderSetup, EveryStepIsLoggedInItsOrder) {
  TranscodeParam param = clipJob();
  param.m_profile = "mobile480p.xml";
  param.m_sid = 0;
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  std::vector<std::string> steps;
  for (const auto& line : log.lines())
    if (line.source == "KxTranscoder" && line.func == "init") steps.push_back(line.text);
  EXPECT_THAT(steps, ElementsAre("pipeout=false, outFile.empty()=false\n",
                                 "set transcode config as 480p\n", "set faststart = true for mp4\n",
                                 "intra subtitle " + media(".@__thumb/.genSub/clip.mp4.si0.srt") +
                                     " do not exist, try to generate it\n",
                                 root.file("/usr/local/medialibrary/bin/subpull") +
                                     " do not exist, can not generate intra subtitle\n"));
}

TEST_F(TranscoderSetup, AMissingExtractorIsLogged) {
  TranscodeParam param = clipJob();
  param.m_sid = 0;
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 0);
  EXPECT_TRUE(loggedInInit(log, "intra subtitle " + media(".@__thumb/.genSub/clip.mp4.si0.srt") +
                                    " do not exist, try to generate it\n"));
  EXPECT_TRUE(loggedInInit(log, root.file("/usr/local/medialibrary/bin/subpull") +
                                    " do not exist, can not generate intra subtitle\n"));
  EXPECT_EQ(transcoder.getParam().m_subtitle, "");
}

TEST_F(TranscoderSetup, TheExtractorIsRunAndItsFileUsed) {
  root.script("/usr/local/medialibrary/bin/subpull",
              "printf '%s\\n' \"$@\" > " + media("args") + "; echo text > \"$5\"\n");
  TranscodeParam param = clipJob();
  param.m_sid = 1;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  const std::string subtitle = media(".@__thumb/.genSub/clip.mp4.si1.srt");
  EXPECT_THAT(wordsOf(media("args")),
              ElementsAre("-i", media("clip.mp4"), "-track", "1", subtitle));
  EXPECT_EQ(transcoder.getParam().m_subtitle, subtitle);
}

TEST_F(TranscoderSetup, ASubtitleOfTheJobIsNotReplaced) {
  root.script("/usr/local/medialibrary/bin/subpull", "echo text > \"$5\"\n");
  TranscodeParam param = clipJob();
  param.m_sid = 1;
  param.m_subtitle = "/own.srt";
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_EQ(transcoder.getParam().m_subtitle, "/own.srt");
}

TEST_F(TranscoderSetup, AFailingExtractorFailsAndLeavesNoHalfFile) {
  root.script("/usr/local/medialibrary/bin/subpull", "echo half > \"$5\"; exit 3\n");
  TranscodeParam param = clipJob();
  param.m_sid = 0;
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_EQ(log.texts().back(), "subpull cmd fail\n");
  EXPECT_FALSE(fs::exists(media(".@__thumb/.genSub/clip.mp4.si0.srt")));
}

TEST_F(TranscoderSetup, SubtitlesAreNotWrittenThroughALinkedFolder) {
  root.script("/usr/local/medialibrary/bin/subpull", "echo text > \"$5\"\n");
  fs::create_directories(media("elsewhere"));
  fs::create_directories(media(".@__thumb"));
  fs::create_symlink(media("elsewhere"), media(".@__thumb/.genSub"));
  TranscodeParam param = clipJob();
  param.m_sid = 0;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 0);
  EXPECT_TRUE(fs::is_empty(media("elsewhere")));
}

TEST_F(TranscoderSetup, TheRotationIsTheJobsOrTheSources) {
  const std::pair<int, int> cases[] = {{0, 0}, {90, 90}, {180, 180}, {270, 270}, {-1, 0}, {45, 0}};
  for (const auto& [asked, expected] : cases) {
    TranscodeParam param = clipJob();
    param.m_rotate = asked;
    KxTranscoder transcoder;
    ASSERT_EQ(transcoder.init(param), 0);
    EXPECT_EQ(transcoder.getTranscodeDegree_(), expected);
    EXPECT_EQ(transcoder.needsStripMetadata(), expected != 0);
  }
}

TEST_F(TranscoderSetup, TheOutputSizeComesFromTheProbedStream) {
  TranscodeParam param = clipJob();
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  int width = -5;
  int height = -5;
  RecordingLog log;
  EXPECT_EQ(transcoder.getResizeBasedOnDAR_(width, height, 360, 240, 24), 0);
  EXPECT_EQ(width, 320);
  EXPECT_EQ(height, 240);
  EXPECT_TRUE(loggedIn(log, "getResizeBasedOnDAR_", "resize_w=320, resize_h=240\n"));
}

TEST_F(TranscoderSetup, TheOutputSizeNeedsAVideoStream) {
  KxTranscoder transcoder;
  int width = -5;
  int height = -5;
  RecordingLog log;
  EXPECT_EQ(transcoder.getResizeBasedOnDAR_(width, height, 360, 240, 24), 1);
  EXPECT_EQ(width, -5);
  EXPECT_TRUE(loggedIn(log, "getResizeBasedOnDAR_", "can not get video stream info\n"));
}

class TranscoderEngines : public TranscoderSetup {
 protected:
  TranscoderEngines() {
    // Both programs record their arguments.
    const std::string record = "printf '%s\\n' \"$0\" \"$@\" > " + media("args") + "\n";
    m_recordingAgent = record;
    root.script("/usr/local/medialibrary/bin/transcode_agent", record);
  }

  void recordFfmpeg() {
    MyUtil_hasAACSupport();  // the host asks the program once what it can encode
    root.script("/usr/local/medialibrary/bin/ffmpeg",
                "case \"$*\" in *-encoders*) exec ffmpeg \"$@\";; esac\n" + m_recordingAgent);
  }

  std::vector<std::string> recorded() const { return wordsOf(media("args")); }

 private:
  std::string m_recordingAgent;
};

TEST_F(TranscoderEngines, AnEmptyResourceStartsNothing) {
  TranscodeParam param = clipJob();
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  KxResource2 none;
  ASSERT_TRUE(none.isEmpty);
  EXPECT_EQ(transcoder.transcode(none, false), -1);
  RecordingLog log;
  EXPECT_EQ(transcoder.hwTranscode(none, media("clip.mp4"), "/out", false), -1);
  EXPECT_TRUE(loggedIn(log, "hwTranscode", "resource is empty\n"));
}

TEST_F(TranscoderEngines, TheHardwareEngineNeedsItsInput) {
  TranscodeParam param = clipJob();
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  KxResource2 gpu = resource(RES2_GPU_INTERNAL);
  RecordingLog log;
  EXPECT_EQ(transcoder.hwTranscode(gpu, "/gone", "/out", false), -1);
  EXPECT_TRUE(loggedIn(log, "hwTranscode", "the transcode target /gone is invalid\n"));
}

TEST_F(TranscoderEngines, HardwareResourcesStartTheAgent) {
  for (const KxRes2_e type : {RES2_GPU_INTERNAL, RES2_GPU_EXTERNAL, RES2_ARM_RTK, RES2_ARM_RK}) {
    TranscodeParam param = clipJob();
    KxTranscoder transcoder;
    ASSERT_EQ(transcoder.init(param), 0);
    KxResource2 hardware = resource(type);
    ASSERT_EQ(finish(transcoder.transcode(hardware, false)), 0);
    std::vector<std::string> expected = {root.file("/usr/local/medialibrary/bin/transcode_agent"),
                                         "-m",
                                         "mp4",
                                         "-ca",
                                         "aac",
                                         "-fs",
                                         transcoder.getParam().m_fastStartFile,
                                         "-i",
                                         media("clip.mp4"),
                                         "-o",
                                         media("result.mp4")};
    if (type == RES2_GPU_EXTERNAL) expected.insert(expected.end(), {"-type", "nvidia"});
    EXPECT_EQ(recorded(), expected);
    EXPECT_THAT(transcoder.getParam().m_fastStartFile,
                StartsWith(transcoder.getWorkFolder() + std::to_string(getpid())));
  }
}

TEST_F(TranscoderEngines, OtherResourcesUseTheSoftwareEngine) {
  recordFfmpeg();
  TranscodeParam param = clipJob();
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  RecordingLog log;
  KxResource2 cpu = resource(RES2_SW_CPU);
  ASSERT_EQ(finish(transcoder.transcode(cpu, false)), 0);
  EXPECT_FALSE(log.has("this is unknow resource, we use sw transcode\n"));
  const std::vector<std::string> words = recorded();
  KxResource2 unknown = resource(RES2_NONE);
  ASSERT_EQ(finish(transcoder.transcode(unknown, false)), 0);
  EXPECT_TRUE(loggedIn(log, "transcode", "this is unknow resource, we use sw transcode\n"));
  EXPECT_EQ(recorded(), words);
  EXPECT_EQ(words.front(), root.file("/usr/local/medialibrary/bin/ffmpeg"));
  EXPECT_EQ(words.back(), media("result.mp4"));
}

TEST_F(TranscoderEngines, WithoutAMediaServiceThereIsNoTool) {
  TranscodeParam param = clipJob();
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  fs::remove(root.file("/usr/local/medialibrary/bin/ffmpeg"));
  KxResource2 cpu = resource(RES2_SW_CPU);
  KxResource2 gpu = resource(RES2_GPU_INTERNAL);
  RecordingLog log;
  EXPECT_EQ(transcoder.transcode(cpu, false), -1);
  EXPECT_EQ(transcoder.transcode(gpu, false), -1);
  EXPECT_TRUE(loggedIn(log, "swTranscode", "no tool\n"));
  EXPECT_TRUE(loggedIn(log, "hwTranscode", "no tool\n"));
}

TEST_F(TranscoderEngines, ARefusedCommandStartsNothing) {
  TranscodeParam param = clipJob();
  param.m_aCopy = true;
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  KxResource2 gpu = resource(RES2_GPU_INTERNAL);
  RecordingLog log;
  EXPECT_EQ(transcoder.transcode(gpu, false), -1);
  EXPECT_TRUE(loggedIn(log, "hwTranscode", "we do not support audio copy for now\n"));
  EXPECT_FALSE(fs::exists(media("args")));
}

TEST_F(TranscoderEngines, TheLogIsWrittenOnlyWhenAskedFor) {
  TranscodeParam param = clipJob();
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  root.script("/usr/local/medialibrary/bin/transcode_agent", "echo said >&2\n");
  KxResource2 gpu = resource(RES2_GPU_INTERNAL);
  ASSERT_EQ(finish(transcoder.transcode(gpu, false)), 0);
  EXPECT_FALSE(fs::exists(transcoder.getProgressLogPath()));
  ASSERT_EQ(finish(transcoder.transcode(gpu, true)), 0);
  EXPECT_EQ(readFile(transcoder.getProgressLogPath()), "said\n");
}

TEST_F(TranscoderEngines, ArgumentsAddedAfterSetupReachTheSoftwareEngineOnly) {
  recordFfmpeg();
  TranscodeParam param = clipJob();
  param.m_extraCmds = {"-first"};
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  transcoder.appendExtraCmds({"-second", "value"});
  KxResource2 cpu = resource(RES2_SW_CPU);
  ASSERT_EQ(finish(transcoder.transcode(cpu, false)), 0);
  const std::vector<std::string> words = recorded();
  EXPECT_THAT(std::vector<std::string>(words.end() - 4, words.end()),
              ElementsAre("-first", "-second", "value", media("result.mp4")));
  KxResource2 gpu = resource(RES2_GPU_INTERNAL);
  ASSERT_EQ(finish(transcoder.transcode(gpu, false)), 0);
  EXPECT_THAT(recorded(), testing::Not(testing::Contains("-second")));
}

TEST_F(TranscoderEngines, TheRemuxRunsTheStaticFfmpeg) {
  recordFfmpeg();
  RecordingLog log;
  KxTranscoder transcoder;
  ASSERT_EQ(finish(transcoder.workaroundStripMetadata("/a.mp4")), 0);
  EXPECT_TRUE(loggedIn(log, "workaroundStripMetadata",
                       "for bug#128126, do not know why sw ffmpeg can not strip metadataso we "
                       "remux video again\n"));
  EXPECT_EQ(recorded().front(), root.file("/usr/local/medialibrary/bin/ffmpeg"));
  EXPECT_EQ(recorded().back(), "/a.mp4.remux.mp4");
}

class TranscoderProgress : public TranscoderSetup {
 protected:
  // A transcoder whose engine has written a log, and a parser with the given body.
  void start(const std::string& parser) {
    root.script("/usr/local/medialibrary/bin/xlogparse.sh", parser);
    TranscodeParam param = clipJob();
    ASSERT_EQ(m_transcoder.init(param), 0);
    writeFile(m_transcoder.getProgressLogPath(), "42");
  }

  KxTranscoder m_transcoder;
};

TEST_F(TranscoderProgress, IsTheParsersExitStatus) {
  start("test $# = 1 && exit $(cat \"$1\")\n");
  EXPECT_EQ(m_transcoder.getProgress(), 42);
  writeFile(m_transcoder.getProgressLogPath(), "100");
  EXPECT_EQ(m_transcoder.getProgress(), 100);
}

TEST_F(TranscoderProgress, IsTheLastValueWhileThereIsNoLog) {
  EXPECT_EQ(m_transcoder.getProgress(), 0);
  start("exit $(cat \"$1\")\n");
  EXPECT_EQ(m_transcoder.getProgress(), 42);
  fs::remove(m_transcoder.getProgressLogPath());
  EXPECT_EQ(m_transcoder.getProgress(), 42);
}

TEST_F(TranscoderProgress, IsZeroWhenTheParserFails) {
  start("exit $(cat \"$1\")\n");
  EXPECT_EQ(m_transcoder.getProgress(), 42);
  writeFile(m_transcoder.getProgressLogPath(), "101");
  EXPECT_EQ(m_transcoder.getProgress(), 0);
  writeFile(m_transcoder.getProgressLogPath(), "7");
  EXPECT_EQ(m_transcoder.getProgress(), 7);
  root.script("/usr/local/medialibrary/bin/xlogparse.sh", "kill -9 $$\n");
  EXPECT_EQ(m_transcoder.getProgress(), 0);
  fs::remove(root.file("/usr/local/medialibrary/bin/xlogparse.sh"));
  EXPECT_EQ(m_transcoder.getProgress(), 0);
}
