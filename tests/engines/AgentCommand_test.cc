#include "engines/AgentCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/engines/Notes.h"

using engines::agentCommand;
using engines::EngineCommand;
using engines::EngineFacts;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Words = std::vector<std::string>;

// A job that adds as little as possible: "AGENT -m mp4 -ca aac -i IN -o OUT".
struct Job {
  Job() {
    param.m_formatId = 4;
    param.m_aCodecId = 86018;
    param.m_vProfile = 77;
    facts.program = "/agent";
    facts.audioEncoders = {"mp3", "aac"};
    facts.input = "/in";
    facts.output = "/out";
    facts.video.m_isEmpty = false;
    facts.video.m_width = 1920;
    facts.video.m_height = 1080;
    facts.audioCodecName = "mp3";
    facts.fastStartFile = "/work/fast";
    facts.pipeOutFile = "/work/pipe";
    resource.isEmpty = false;
    resource.resType = RES2_GPU_INTERNAL;
  }

  EngineCommand command() const { return agentCommand(param, facts, resource); }

  TranscodeParam param;
  EngineFacts facts;
  KxResource2 resource;
};

Words notesOf(const EngineCommand& command) {
  return kxtest::textsOf(command.notes, "hwTranscode");
}

struct RowCase {
  const char* name;
  std::function<void(Job&)> change;
  Words added;       // where it stands in the command is tested by the full command
  Words notes = {};  // under the command's own name
};

// What is in `command` but not in the plain command, in order.
Words addedWords(const Words& plain, const Words& command) {
  size_t front = 0;
  while (front < plain.size() && front < command.size() && plain[front] == command[front]) ++front;
  size_t back = 0;
  while (back < plain.size() - front && back < command.size() - front &&
         plain[plain.size() - 1 - back] == command[command.size() - 1 - back])
    ++back;
  EXPECT_EQ(front + back, plain.size()) << "the change replaced something";
  return {command.begin() + static_cast<ptrdiff_t>(front),
          command.end() - static_cast<ptrdiff_t>(back)};
}

}  // namespace

TEST(AgentCommand, AFullJobHasEveryArgumentInItsPlace) {
  Job job;
  TranscodeParam& p = job.param;
  p.m_seekTime = 10;
  p.m_seekTimeFile = "/seek";
  p.m_vFramerate = 25;
  p.m_width = 1280;
  p.m_height = 720;
  p.m_vBitrate = 1500999;
  p.m_vProfile = 100;
  p.m_vLevel = 4.1;
  p.m_mode = 3;
  p.m_vid = 1;
  p.m_aChannel = 2;
  p.m_aSampleRate = 44100;
  p.m_aBitrate = 128000;
  p.m_aid = 2;
  p.m_subtitle = "/sub.srt";
  p.m_sid = 0;
  p.m_subSeek = -3;
  p.m_subSize = 20;
  p.m_subColor = "red";
  p.m_isFastStart = true;
  p.m_isPipeOut = true;
  p.m_extraCmds = {"-ignored"};
  job.facts.degree = 180;
  job.resource.resType = RES2_GPU_EXTERNAL;
  job.resource.devNumber = "1";

  const EngineCommand command = job.command();
  EXPECT_FALSE(command.refused);
  EXPECT_THAT(command.argv,
              ElementsAre("/agent", "-m", "mp4", "-seek", "10", "-sf", "/seek", "-vf", "25/1",
                          "-vr", "2", "-s", "width=1280,height=720", "-vb", "1500", "-ve",
                          "h264_high_tune_1", "-profile", "high", "-vid", "1", "-ca", "aac", "-ac",
                          "2", "-ab", "128000", "-aid", "2", "-t", "/sub.srt", "-tid", "0",
                          "-tseek", "-3", "-tsize", "20", "-color", "red", "-mode", "3", "-fs",
                          "/work/fast", "-o", "/work/pipe", "-i", "/in", "-o", "/out", "-type",
                          "nvidia", "-devno", "1"));
  EXPECT_THAT(notesOf(command),
              ElementsAre("we do not support video level for now\n",
                          "work around for PS4, set gst h264 encode with tune=1\n",
                          "generate pipeout file: /work/pipe\n"));
  EXPECT_EQ(command.fastStartFile, "/work/fast");
  EXPECT_EQ(command.pipeOutFile, "/work/pipe");
}

TEST(AgentCommand, APlainJobHasOnlyWhatIsAlwaysThere) {
  const EngineCommand command = Job().command();
  EXPECT_FALSE(command.refused);
  EXPECT_THAT(command.argv, ElementsAre("/agent", "-m", "mp4", "-profile", "main", "-ca", "aac",
                                        "-i", "/in", "-o", "/out"));
  EXPECT_THAT(notesOf(command), IsEmpty());
  EXPECT_EQ(command.fastStartFile, "");
  EXPECT_EQ(command.pipeOutFile, "");
}

class AgentCommandRows : public testing::TestWithParam<RowCase> {};

TEST_P(AgentCommandRows, AddTheirArguments) {
  Job job;
  job.param.m_vProfile = -1;
  const Words plain = job.command().argv;
  GetParam().change(job);
  const EngineCommand command = job.command();
  EXPECT_FALSE(command.refused);
  EXPECT_EQ(addedWords(plain, command.argv), GetParam().added);
  Words expected = GetParam().notes;
  if (job.param.m_vProfile == -1) expected.push_back("unkonw video profile\n");
  EXPECT_THAT(notesOf(command), testing::UnorderedElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(
    Table, AgentCommandRows,
    testing::Values(
        RowCase{"Nothing", [](Job&) {}, {}},
        RowCase{"Seek", [](Job& j) { j.param.m_seekTime = 1; }, {"-seek", "1"}},
        RowCase{"Framerate", [](Job& j) { j.param.m_vFramerate = 30; }, {"-vf", "30/1"}},
        RowCase{"Turn90", [](Job& j) { j.facts.degree = 90; }, {"-vr", "1"}},
        RowCase{"Turn180", [](Job& j) { j.facts.degree = 180; }, {"-vr", "2"}},
        RowCase{"Turn270", [](Job& j) { j.facts.degree = 270; }, {"-vr", "3"}},
        RowCase{"NoTurnBy45", [](Job& j) { j.facts.degree = 45; }, {}},
        RowCase{"Size",
                [](Job& j) {
                  j.param.m_width = 640;
                  j.param.m_height = 480;
                },
                {"-s", "width=852,height=480"}},
        RowCase{"NoSizeWithoutAHeight", [](Job& j) { j.param.m_width = 640; }, {}},
        RowCase{"VideoBitrateInKilobits", [](Job& j) { j.param.m_vBitrate = 999; }, {"-vb", "0"}},
        RowCase{"LevelIsOnlyLogged",
                [](Job& j) { j.param.m_vLevel = 3.0; },
                {},
                {"we do not support video level for now\n"}},
        RowCase{"ProfileHigh", [](Job& j) { j.param.m_vProfile = 100; }, {"-profile", "high"}},
        RowCase{
            "ProfileBaseline", [](Job& j) { j.param.m_vProfile = 66; }, {"-profile", "baseline"}},
        RowCase{"ProfileMain", [](Job& j) { j.param.m_vProfile = 77; }, {"-profile", "main"}},
        RowCase{"ProfileUnknown",
                [](Job& j) { j.param.m_vProfile = 110; },
                {},
                {"unkonw video profile\n"}},
        RowCase{"Mode3WithoutHighProfile", [](Job& j) { j.param.m_mode = 3; }, {"-mode", "3"}},
        RowCase{"NegativeMode", [](Job& j) { j.param.m_mode = -1; }, {"-mode", "-1"}},
        RowCase{"VideoTrack", [](Job& j) { j.param.m_vid = 2; }, {"-vid", "2"}},
        RowCase{"Channels", [](Job& j) { j.param.m_aChannel = 2; }, {"-ac", "2"}},
        RowCase{"AudioBitrateInBits", [](Job& j) { j.param.m_aBitrate = 64000; }, {"-ab", "64000"}},
        RowCase{"SampleRateIsNotPassed", [](Job& j) { j.param.m_aSampleRate = 44100; }, {}},
        RowCase{"AudioTrack", [](Job& j) { j.param.m_aid = 1; }, {"-aid", "1"}},
        RowCase{"NoAudioTrack", [](Job& j) { j.param.m_aid = -1; }, {}},
        RowCase{"SubtitleFile", [](Job& j) { j.param.m_subtitle = "/s"; }, {"-t", "/s"}},
        RowCase{"SubtitleTrackZero", [](Job& j) { j.param.m_sid = 0; }, {"-tid", "0"}},
        RowCase{"SubtitleShift", [](Job& j) { j.param.m_subSeek = 4; }, {"-tseek", "4"}},
        RowCase{"SubtitleSize", [](Job& j) { j.param.m_subSize = 9; }, {"-tsize", "9"}},
        RowCase{"SubtitleColour", [](Job& j) { j.param.m_subColor = "blue"; }, {"-color", "blue"}},
        RowCase{"FastStart", [](Job& j) { j.param.m_isFastStart = true; }, {"-fs", "/work/fast"}},
        RowCase{"PipeOut",
                [](Job& j) { j.param.m_isPipeOut = true; },
                {"-o", "/work/pipe"},
                {"generate pipeout file: /work/pipe\n"}},
        RowCase{"ExternalGpu",
                [](Job& j) { j.resource.resType = RES2_GPU_EXTERNAL; },
                {"-type", "nvidia"}},
        RowCase{"ExternalGpuWithNumber",
                [](Job& j) {
                  j.resource.resType = RES2_GPU_EXTERNAL;
                  j.resource.devNumber = "7";
                },
                {"-type", "nvidia", "-devno", "7"}},
        RowCase{"DeviceNumberOfAnOnChipEngine",
                [](Job& j) {
                  j.resource.resType = RES2_ARM_RK;
                  j.resource.devNumber = "7";
                },
                {}}),
    [](const testing::TestParamInfo<RowCase>& test) { return test.param.name; });

TEST(AgentCommand, EveryContainerHasItsName) {
  const std::pair<int, const char*> names[] = {
      {1, "avi"}, {4, "mp4"}, {5, "ts"}, {6, "mkv"}, {7, "flv"}};
  for (const auto& [id, name] : names) {
    Job job;
    job.param.m_formatId = id;
    const EngineCommand command = job.command();
    EXPECT_FALSE(command.refused);
    EXPECT_EQ(command.argv.at(2), name);
  }
}

TEST(AgentCommand, EmptyPathsAddNoArguments) {
  Job job;
  job.facts.input = "";
  job.facts.output = "";
  EXPECT_THAT(job.command().argv,
              ElementsAre("/agent", "-m", "mp4", "-profile", "main", "-ca", "aac"));
}

TEST(AgentCommand, TheAudioCodecFollowsTheOfferAndTheSource) {
  const struct {
    int wanted;
    int source;
    Words offered;
    const char* expected;  // null when refused
  } cases[] = {
      {86018, 86017, {"aac"}, "aac"}, {86018, 86018, {"mp3"}, "copy"}, {86018, 86017, {}, nullptr},
      {86018, 86018, {"aac"}, "aac"}, {86017, 86017, {}, "mp3"},
  };
  for (const auto& c : cases) {
    Job job;
    job.param.m_aCodecId = c.wanted;
    job.facts.audio.m_isEmpty = false;
    job.facts.audio.m_codecId = c.source;
    job.facts.audioEncoders = c.offered;
    const EngineCommand command = job.command();
    EXPECT_EQ(command.refused, c.expected == nullptr);
    EXPECT_THAT(notesOf(command), IsEmpty());
    if (c.expected != nullptr) {
      EXPECT_EQ(command.argv.at(6), c.expected);
    }
  }
}

struct RefusalCase {
  const char* name;
  std::function<void(Job&)> change;
  const char* note;
};

class AgentRefusals : public testing::TestWithParam<RefusalCase> {};

TEST_P(AgentRefusals, NoteTheReasonLast) {
  Job job;
  GetParam().change(job);
  const EngineCommand command = job.command();
  EXPECT_TRUE(command.refused);
  ASSERT_FALSE(command.notes.empty());
  EXPECT_STREQ(command.notes.back().function, "hwTranscode");
  EXPECT_EQ(command.notes.back().text, GetParam().note);
}

INSTANTIATE_TEST_SUITE_P(
    Table, AgentRefusals,
    testing::Values(
        RefusalCase{"FormatAsf", [](Job& j) { j.param.m_formatId = 2; }, "unknow format\n"},
        RefusalCase{"FormatMpeg", [](Job& j) { j.param.m_formatId = 3; }, "unknow format\n"},
        RefusalCase{"FormatAudio", [](Job& j) { j.param.m_formatId = 9; }, "unknow format\n"},
        RefusalCase{"VideoIgnore", [](Job& j) { j.param.m_vIgnore = true; },
                    "we do not support video ignore for now\n"},
        RefusalCase{"VideoCopy", [](Job& j) { j.param.m_vCopy = true; },
                    "we do not support video copy for now\n"},
        RefusalCase{"VideoCodec", [](Job& j) { j.param.m_vCodecId = 174; },
                    "we do not support non-h264 codec for now\n"},
        RefusalCase{"NoVideo", [](Job& j) { j.facts.video = KxStream(); },
                    "getResizeBasedOnDAR_() fail"},
        RefusalCase{"AudioIgnore", [](Job& j) { j.param.m_aIgnore = true; },
                    "we do not support audio ignore for now\n"},
        RefusalCase{"AudioCopy", [](Job& j) { j.param.m_aCopy = true; },
                    "we do not support audio copy for now\n"},
        RefusalCase{"AudioCodecName",
                    [](Job& j) {
                      j.param.m_aCodecId = 1234;
                      j.facts.audioCodecName.reset();
                    },
                    "get audio codec name fail:1234"},
        RefusalCase{"FastStartName",
                    [](Job& j) {
                      j.param.m_isFastStart = true;
                      j.facts.fastStartFile.reset();
                    },
                    "miscGenUniqueFileName() fail\n"},
        RefusalCase{"PipeOutName",
                    [](Job& j) {
                      j.param.m_isPipeOut = true;
                      j.facts.pipeOutFile.reset();
                    },
                    "miscGenUniqueFileName() fail\n"}),
    [](const testing::TestParamInfo<RefusalCase>& test) { return test.param.name; });

TEST(AgentCommand, AnEarlyRefusalLeavesTheSideFilesAlone) {
  Job job;
  job.param.m_isFastStart = true;
  job.param.m_isPipeOut = true;
  job.param.m_aCopy = true;
  const EngineCommand command = job.command();
  EXPECT_FALSE(command.fastStartFile);
  EXPECT_FALSE(command.pipeOutFile);
}

TEST(AgentCommand, ALateRefusalKeepsTheSideFileNamedBefore) {
  Job job;
  job.param.m_isFastStart = true;
  job.param.m_isPipeOut = true;
  job.facts.pipeOutFile.reset();
  const EngineCommand command = job.command();
  EXPECT_TRUE(command.refused);
  EXPECT_EQ(command.fastStartFile, "/work/fast");
  EXPECT_FALSE(command.pipeOutFile);
}
