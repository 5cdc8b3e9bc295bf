#include "engines/SoftwareCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/engines/Notes.h"

using engines::EngineCommand;
using engines::EngineFacts;
using engines::softwareCommand;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

using Words = std::vector<std::string>;

struct Job {
  Job() {
    param.m_formatId = 4;
    param.m_aCodecId = 86018;
    facts.program = "/ffmpeg";
    facts.audioEncoders = {"aac"};
    facts.input = "/in";
    facts.output = "/out";
    facts.video.m_isEmpty = false;
    facts.video.m_codecId = 174;
    facts.video.m_width = 1920;
    facts.video.m_height = 1080;
    facts.video.m_frame_num = 25;
    facts.video.m_frame_den = 1;
    facts.audioCodecName = "mp3";
    facts.pipeOutFile = "/work/pipe";
  }

  EngineCommand command() const { return softwareCommand(param, facts); }

  TranscodeParam param;
  EngineFacts facts;
};

Words notesOf(const EngineCommand& command) {
  return kxtest::textsOf(command.notes, "swTranscode");
}

// The argument after an option, or "(absent)".
std::string after(const EngineCommand& command, const std::string& option) {
  const auto found = std::find(command.argv.begin(), command.argv.end(), option);
  return found == command.argv.end() || found + 1 == command.argv.end() ? "(absent)" : found[1];
}

Job withSourceAudio(int codecId) {
  Job job;
  job.facts.audio.m_isEmpty = false;
  job.facts.audio.m_codecId = codecId;
  return job;
}

}  // namespace

TEST(SoftwareCommand, AFullJobHasEveryArgumentInItsPlace) {
  Job job;
  TranscodeParam& p = job.param;
  p.m_seekTime = 10;
  p.m_totalDuration = 20;
  p.m_width = 1280;
  p.m_height = 720;
  p.m_formatId = 5;
  p.m_vid = 1;
  p.m_vFramerate = 30;
  p.m_vBitrate = 1500000;
  p.m_vLevel = 4.0;
  p.m_vProfile = 77;
  p.m_aid = 2;
  p.m_aChannel = 2;
  p.m_aSampleRate = 44100;
  p.m_aBitrate = 64000;
  p.m_extraCmds = {"-movflags", "+faststart"};
  p.m_isPipeOut = true;
  p.m_fastStartFile = "kept";
  job.facts.degree = 90;

  const EngineCommand command = job.command();
  EXPECT_FALSE(command.refused);
  EXPECT_THAT(command.argv,
              ElementsAre("/ffmpeg", "-y", "-ss", "10", "-noautorotate", "-i", "/in", "-t", "20",
                          "-fix_duration", "20", "-vf", "scale=1280:720,transpose=1,format=yuv420p",
                          "-metadata:s:v", "rotate=0", "-strict", "-2", "-preset", "superfast",
                          "-f", "mpegts", "-bsf:v", "h264_mp4toannexb", "-map", "0:v:1", "-r", "30",
                          "-b:v", "1500000", "-level", "4.0", "-profile:v", "main", "-c:v", "h264",
                          "-map", "0:a:2", "-ac", "2", "-ar", "44100", "-b:a", "64000", "-c:a",
                          "aac", "-movflags", "+faststart", "/out"));
  EXPECT_THAT(notesOf(command),
              ElementsAre(">>> maybe we should recalculate seek time here\n",
                          "add unknow cmd -movflags to sw ffmpeg transcode ...\n",
                          "add unknow cmd +faststart to sw ffmpeg transcode ...\n",
                          "generate pipeout file: /work/pipe\n"));
  EXPECT_FALSE(command.fastStartFile);
  EXPECT_EQ(command.pipeOutFile, "/work/pipe");
}

TEST(SoftwareCommand, APlainJobHasOnlyWhatIsAlwaysThere) {
  Job job;
  const EngineCommand command = job.command();
  EXPECT_FALSE(command.refused);
  EXPECT_THAT(command.argv,
              ElementsAre("/ffmpeg", "-y", "-noautorotate", "-i", "/in", "-vf", "format=yuv420p",
                          "-strict", "-2", "-preset", "superfast", "-f", "mp4", "-map", "0:v:0",
                          "-c:v", "h264", "-map", "0:a:0", "-c:a", "aac", "/out"));
  EXPECT_THAT(notesOf(command),
              ElementsAre("can not get video framerate, ignore framerate parameter\n",
                          "unknow video profile\n", "clear pipe out file\n"));
  EXPECT_EQ(command.pipeOutFile, "");
}

TEST(SoftwareCommand, EveryTurnHasItsFilter) {
  const std::pair<int, const char*> chains[] = {{0, "scale=1280:720,format=yuv420p"},
                                                {90, "scale=1280:720,transpose=1,format=yuv420p"},
                                                {180, "scale=1280:720,vflip,hflip,format=yuv420p"},
                                                {270, "scale=1280:720,transpose=2,format=yuv420p"}};
  for (const auto& [degree, chain] : chains) {
    Job job;
    job.param.m_width = 1280;
    job.param.m_height = 720;
    job.facts.degree = degree;
    const EngineCommand command = job.command();
    EXPECT_EQ(after(command, "-vf"), chain);
    EXPECT_EQ(after(command, "-metadata:s:v"), degree > 0 ? "rotate=0" : "(absent)");
  }
}

TEST(SoftwareCommand, EveryContainerHasItsName) {
  const std::pair<int, const char*> names[] = {
      {1, "avi"}, {4, "mp4"}, {5, "mpegts"}, {6, "mkv"}, {7, "flv"}};
  for (const auto& [id, name] : names) {
    Job job;
    job.param.m_formatId = id;
    const EngineCommand command = job.command();
    EXPECT_EQ(after(command, "-f"), name);
    EXPECT_EQ(after(command, "-bsf:v"), id == 5 ? "h264_mp4toannexb" : "(absent)");
  }
}

TEST(SoftwareCommand, OtherContainersAreRefused) {
  for (const int id : {0, 2, 3, 8, 9}) {
    Job job;
    job.param.m_formatId = id;
    const EngineCommand command = job.command();
    EXPECT_TRUE(command.refused);
    EXPECT_EQ(notesOf(command).back(), "unknow format\n");
  }
}

TEST(SoftwareCommand, ASourceWithoutVideoIsRefused) {
  Job job;
  job.facts.video = KxStream();
  const EngineCommand command = job.command();
  EXPECT_TRUE(command.refused);
  EXPECT_EQ(notesOf(command).back(), "getResizeBasedOnDAR_() fail\n");
}

TEST(SoftwareCommand, NegativeTracksAreNotMapped) {
  Job job;
  job.param.m_vid = -1;
  job.param.m_aid = -1;
  EXPECT_EQ(after(job.command(), "-map"), "(absent)");
}

TEST(SoftwareCommand, TheFrameRateNeedsTheSourceToHaveOne) {
  Job job;
  job.param.m_vFramerate = 30;
  EXPECT_EQ(after(job.command(), "-r"), "30");
  job.facts.video.m_frame_num = 0;
  const EngineCommand command = job.command();
  EXPECT_EQ(after(command, "-r"), "(absent)");
  EXPECT_THAT(notesOf(command),
              IsSupersetOf({"can not get video framerate, ignore framerate parameter\n"}));
}

TEST(SoftwareCommand, ProfilesHaveNames) {
  const std::pair<int, const char*> names[] = {
      {77, "main"}, {100, "high"}, {66, "baseline"}, {-1, "(absent)"}, {110, "(absent)"}};
  for (const auto& [profile, name] : names) {
    Job job;
    job.param.m_vProfile = profile;
    const EngineCommand command = job.command();
    EXPECT_EQ(after(command, "-profile:v"), name);
    const Words notes = notesOf(command);
    const bool noted =
        std::find(notes.begin(), notes.end(), "unknow video profile\n") != notes.end();
    EXPECT_EQ(noted, std::string(name) == "(absent)");
  }
}

TEST(SoftwareCommand, AForcedVideoEncodeIsNoted) {
  Job job;
  job.param.m_vProfile = 77;
  job.facts.video.m_codecId = 28;
  job.facts.video.m_profile = 100;
  EXPECT_THAT(notesOf(job.command()),
              IsSupersetOf({"source is h264 profile 100, main profile is asked for, force "
                            "transcode video\n",
                            "source video codec is already 28, force transcode video\n"}));
  job.facts.video.m_profile = 77;
  for (const std::string& note : notesOf(job.command()))
    EXPECT_THAT(note, testing::Not(HasSubstr("main profile is asked for")));
  EXPECT_EQ(after(job.command(), "-c:v"), "h264");
}

TEST(SoftwareCommand, AnotherVideoCodecBecomesH264) {
  Job job;
  job.param.m_vCodecId = 174;
  job.param.m_formatId = 5;
  const EngineCommand command = job.command();
  EXPECT_EQ(after(command, "-c:v"), "h264");
  EXPECT_EQ(after(command, "-bsf:v"), "(absent)");
  EXPECT_THAT(notesOf(command), IsSupersetOf({"set default codec as h264\n"}));
}

TEST(SoftwareCommand, TheAudioIsEncodedWhenSomethingChanges) {
  Job job = withSourceAudio(KX_CODEC_MP3);
  EXPECT_EQ(after(job.command(), "-c:a"), "aac");
  for (int32_t TranscodeParam::*setting :
       {&TranscodeParam::m_aChannel, &TranscodeParam::m_aSampleRate, &TranscodeParam::m_aBitrate}) {
    Job same = withSourceAudio(KX_CODEC_AAC);
    same.param.*setting = 1;
    EXPECT_EQ(after(same.command(), "-c:a"), "aac");
  }
}

TEST(SoftwareCommand, UnchangedAacIsCopied) {
  const EngineCommand command = withSourceAudio(KX_CODEC_AAC).command();
  EXPECT_EQ(after(command, "-c:a"), "copy");
  EXPECT_THAT(notesOf(command), IsSupersetOf({"for now, force transcode audio\n"}));
}

TEST(SoftwareCommand, UnchangedAudioOfAnotherCodecIsEncodedByName) {
  Job job = withSourceAudio(KX_CODEC_MP3);
  job.param.m_aCodecId = KX_CODEC_MP3;
  const EngineCommand command = job.command();
  EXPECT_EQ(after(command, "-c:a"), "mp3");
  EXPECT_THAT(notesOf(command), IsSupersetOf({"for now, force transcode audio\n"}));
}

TEST(SoftwareCommand, AacThatIsNotOfferedTakesTheCodecsName) {
  Job job;
  job.facts.audioEncoders = {};
  job.facts.audioCodecName = "other";
  EXPECT_EQ(after(job.command(), "-c:a"), "other");
}

TEST(SoftwareCommand, AnAudioCodecWithoutANameIsRefused) {
  Job job;
  job.param.m_aCodecId = 0;
  job.facts.audioCodecName.reset();
  const EngineCommand command = job.command();
  EXPECT_TRUE(command.refused);
  EXPECT_EQ(notesOf(command).back(), "get audio codec name fail:0");
}

TEST(SoftwareCommand, PipedOutputIsTheOnlyOutputWhenThereIsNoFile) {
  Job job;
  job.param.m_isPipeOut = true;
  EXPECT_EQ(job.command().argv.back(), "/out");
  job.facts.output = "";
  EXPECT_EQ(job.command().argv.back(), "/work/pipe");
  job.facts.pipeOutFile.reset();
  const EngineCommand command = job.command();
  EXPECT_TRUE(command.refused);
  EXPECT_EQ(notesOf(command).back(), "miscGenUniqueFileName() fail\n");
}

TEST(SoftwareCommand, TheRemuxCopiesEverythingButTheRotation) {
  EXPECT_THAT(engines::remuxCommand("/ffmpeg", "/a.mp4"),
              ElementsAre("/ffmpeg", "-y", "-i", "/a.mp4", "-map", "0", "-c", "copy",
                          "-map_metadata", "-1", "-metadata:s:v", "rotate=0", "-movflags",
                          "+faststart", "-f", "mp4", "/a.mp4.remux.mp4"));
}
