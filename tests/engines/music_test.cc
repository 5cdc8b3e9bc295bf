#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "KxMusicTranscoder.h"
#include "KxTranscoder.h"
#include "engines/MusicCommand.h"
#include "frame/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::makeClip;
using kxtest::PrivateRoot;
using kxtest::readFile;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;
using testing::ElementsAre;
using testing::IsSubsetOf;

namespace {

constexpr const char* kEncoder = "/usr/local/medialibrary/bin/ffmpeg";
constexpr const char* kParser = "/usr/local/medialibrary/bin/xlogparse.sh";
constexpr int kCodecFlac = AV_CODEC_ID_FLAC;

engines::EngineFacts toolFacts() {
  engines::EngineFacts facts;
  facts.program = "tool";
  facts.audioEncoders = {"aac", "libmp3lame"};
  facts.input = "/in";
  facts.output = "/out";
  facts.audioCodecName = "name";
  return facts;
}

MusicTranscodeParam musicParam() {
  MusicTranscodeParam param;
  param.m_formatId = KX_FORMAT_AUDIO;
  return param;
}

std::vector<std::string> commandLine(const MusicTranscodeParam& param,
                                     const engines::EngineFacts& facts = toolFacts()) {
  return engines::musicCommand(param, facts, "swTranscode").argv;
}

std::vector<std::string> noteTexts(const engines::EngineCommand& command) {
  std::vector<std::string> texts;
  for (const auto& note : command.notes) texts.push_back(note.text);
  return texts;
}

// A private root with a media data directory and the installed encoder.
class Music : public testing::Test {
 protected:
  void SetUp() override {
    m_root.write("/etc/config/medialibrary.conf", "[OPTIONS]\nMlsDataDir = " + data() + "\n");
    m_root.script(kEncoder, "exec ffmpeg \"$@\"\n");
    fs::create_directory(data());
    makeClip(source());
    m_param = musicParam();
    m_param.m_inFile = source();
    m_param.m_outFile = m_dir / "result";
  }

  std::string data() const { return m_dir / "data"; }
  std::string source() const { return m_dir / "clip.mp4"; }
  std::string serviceFolder() const { return data() + "/.system/transcode/"; }

  static KxResource2 resource(int type) {
    KxResource2 res;
    res.isEmpty = false;
    res.resType = static_cast<KxRes2_e>(type);
    res.id = "res id";
    res.devName = "res name";
    return res;
  }

  // Wait status of a child that a transcoder started.
  static int waitFor(int pid) {
    EXPECT_GT(pid, 0);
    if (pid <= 0) return -1;
    ChildProcess child = ChildProcess::adopt(pid);
    return child.waitFor(std::chrono::seconds(60)).value_or(-1);
  }

  int failingInit(const std::string& text) {
    RecordingLog log;
    KxMusicTranscoder music;
    const int result = music.init(m_param);
    EXPECT_TRUE(log.has(5, "KxMusicTranscoder", text)) << text;
    for (const auto& line : log.lines()) {
      if (line.source != "KxMusicTranscoder") continue;
      EXPECT_EQ(line.func, "init");
    }
    return result;
  }

  PrivateRoot m_root;
  TempDir m_dir;
  MusicTranscodeParam m_param;
};

}  // namespace

TEST(MusicTranscodeParam, ANewRecordTranscodesTheWholeFileToMp3) {
  const MusicTranscodeParam param;
  EXPECT_EQ(param.m_inFile, "");
  EXPECT_EQ(param.m_outFile, "");
  EXPECT_EQ(param.m_formatId, 0);
  EXPECT_EQ(param.m_totalDuration, 0);
  EXPECT_TRUE(param.m_extraCmds.empty());
  EXPECT_EQ(param.m_ip + param.m_usrname + param.m_tag, "");
  EXPECT_EQ(param.m_aCodecId, 86017);
  EXPECT_EQ(param.m_aid, 0);
  EXPECT_EQ(param.m_aChannel, 0);
  EXPECT_EQ(param.m_aSampleRate, 0);
  EXPECT_EQ(param.m_aBitrate, 0);
  EXPECT_FALSE(param.m_aIgnore);
  EXPECT_FALSE(param.m_aCopy);
}

TEST(MusicTranscodeParam, TheDumpLogsEveryField) {
  MusicTranscodeParam param;
  param.m_inFile = "/in";
  param.m_outFile = "/out";
  param.m_formatId = 9;
  param.m_totalDuration = 5;
  param.m_ip = "127.0.0.1";
  param.m_usrname = "user";
  param.m_tag = "tag";
  param.m_aChannel = 2;
  param.m_aSampleRate = 44100;
  param.m_aBitrate = 128000;
  param.m_aCopy = true;
  param.m_extraCmds = {"-x", "y"};
  RecordingLog log;
  param.dump();
  EXPECT_THAT(log.texts(),
              ElementsAre("dump KxMusicTranscodeParam options\n", "m_inFile=/in, m_outFile=/out\n",
                          "m_formatId=9, m_totalDuration=5\n",
                          "m_ip=127.0.0.1, m_usrname=user, m_tag=tag\n",
                          "m_aCodecId=86017, m_aid=0, m_aChannel=2, m_aSampleRate=44100, "
                          "m_aBitrate=128000, m_aIgnore=false, m_aCopy=true\n",
                          "unknow cmd: -x\n", "unknow cmd: y\n"));
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.level, 5);
    EXPECT_EQ(line.source, "KxMusicTranscoder");
    EXPECT_EQ(line.func, "dump");
  }
}

TEST(MusicCommand, ANewRecordGivesTheShortestCommandWithoutALengthLimit) {
  EXPECT_THAT(commandLine(musicParam()),
              ElementsAre("tool", "-y", "-i", "/in", "-strict", "-2", "-f", "mp3", "-map", "0:a:0?",
                          "-c:a", "mp3", "/out"));
}

TEST(MusicCommand, EverySettingHasItsPlace) {
  MusicTranscodeParam param = musicParam();
  param.m_totalDuration = 30;
  param.m_aid = 2;
  param.m_aChannel = 2;
  param.m_aSampleRate = 44100;
  param.m_aBitrate = 128000;
  param.m_aCodecId = KX_CODEC_AAC;
  param.m_extraCmds = {"-threads", "1"};
  const engines::EngineCommand command = engines::musicCommand(param, toolFacts(), "hwTranscode");
  EXPECT_THAT(command.argv, ElementsAre("tool", "-y", "-i", "/in", "-t", "30", "-strict", "-2",
                                        "-f", "adts", "-map", "0:a:2?", "-ac", "2", "-ar", "44100",
                                        "-b:a", "128000", "-c:a", "aac", "-threads", "1", "/out"));
  EXPECT_THAT(noteTexts(command),
              ElementsAre("add unknow cmd -threads to sw ffmpeg transcode ...\n",
                          "add unknow cmd 1 to sw ffmpeg transcode ...\n"));
  for (const auto& note : command.notes) EXPECT_STREQ(note.function, "hwTranscode");
}

TEST(MusicCommand, ANegativeStreamIsLeftToTheEncoder) {
  MusicTranscodeParam param = musicParam();
  param.m_aid = -1;
  EXPECT_THAT(commandLine(param), ElementsAre("tool", "-y", "-i", "/in", "-strict", "-2", "-f",
                                              "mp3", "-c:a", "mp3", "/out"));
}

TEST(MusicCommand, OtherCodecsNameTheirContainerAndEncoder) {
  MusicTranscodeParam param = musicParam();
  param.m_aCodecId = kCodecFlac;
  engines::EngineFacts facts = toolFacts();
  facts.audioCodecName = "flac";
  EXPECT_THAT(commandLine(param, facts),
              ElementsAre("tool", "-y", "-i", "/in", "-strict", "-2", "-f", "flac", "-map",
                          "0:a:0?", "-c:a", "flac", "/out"));
  facts.audioCodecName.reset();
  const engines::EngineCommand refused = engines::musicCommand(param, facts, "swTranscode");
  EXPECT_TRUE(refused.refused);
  EXPECT_THAT(noteTexts(refused), ElementsAre("get audio codec name fail:86028\n"));
}

TEST(MusicCommand, AacThatTheToolDoesNotListIsAskedForByItsCodecName) {
  MusicTranscodeParam param = musicParam();
  param.m_aCodecId = KX_CODEC_AAC;
  engines::EngineFacts facts = toolFacts();
  facts.audioEncoders = {"libmp3lame"};
  const auto line = commandLine(param, facts);
  EXPECT_THAT((std::vector<std::string>{"-c:a", "name"}), IsSubsetOf(line));
}

TEST(MusicCommand, Mp3IsNotedAsTheDefault) {
  const auto command = engines::musicCommand(musicParam(), toolFacts(), "swTranscode");
  EXPECT_THAT(noteTexts(command), ElementsAre("set default codec as mp3\n"));
}

TEST(MusicCommand, AudioThatCouldBeCopiedIsEncodedAllTheSame) {
  engines::EngineFacts facts = toolFacts();
  facts.audio.m_isEmpty = false;
  facts.audio.m_codecId = KX_CODEC_MP3;
  MusicTranscodeParam param = musicParam();
  param.m_aCopy = true;
  const auto command = engines::musicCommand(param, facts, "swTranscode");
  EXPECT_THAT(noteTexts(command),
              ElementsAre("for now, force transcode audio\n", "set default codec as mp3\n"));
  EXPECT_EQ(command.argv, commandLine(musicParam()));

  const auto forcedNotes = [&](auto change) {
    MusicTranscodeParam changed = param;
    change(changed);
    return noteTexts(engines::musicCommand(changed, facts, "swTranscode"));
  };
  const auto encodedAnyway = ElementsAre("set default codec as mp3\n");
  EXPECT_THAT(forcedNotes([](auto& p) { p.m_aChannel = 1; }), encodedAnyway);
  EXPECT_THAT(forcedNotes([](auto& p) { p.m_aSampleRate = 8000; }), encodedAnyway);
  EXPECT_THAT(forcedNotes([](auto& p) { p.m_aBitrate = 64000; }), encodedAnyway);
}

TEST_F(Music, EachFailingCheckOfInitIsNamed) {
  const MusicTranscodeParam good = m_param;

  m_param.m_inFile = m_dir / "gone.mp3";
  EXPECT_NE(failingInit("m_inFile " + m_dir / "gone.mp3" + " is invalid\n"), 0);

  writeFile(m_dir / "text.mp3", "no music");
  m_param.m_inFile = m_dir / "text.mp3";
  EXPECT_NE(failingInit("mediainfo init fail\n"), 0);

  m_param = good;
  writeFile(m_dir / "taken", "mine");
  m_param.m_outFile = m_dir / "taken";
  EXPECT_NE(failingInit("name " + m_dir / "taken" + " is already exist, init fail"), 0);
  EXPECT_EQ(readFile(m_dir / "taken"), "mine");

  fs::create_symlink("nowhere", m_dir / "link");
  m_param.m_outFile = m_dir / "link";
  EXPECT_NE(failingInit("name " + m_dir / "link" + " is already exist, init fail"), 0);

  m_param = good;
  m_param.m_formatId = 0;
  EXPECT_NE(failingInit("unknow format\n"), 0);

  m_param = good;
  m_param.m_outFile = "";
  EXPECT_NE(failingInit("output parameter error\n"), 0);
  m_param.m_outFile = m_dir / "not there/";
  EXPECT_NE(failingInit("output parameter error\n"), 0);
}

TEST_F(Music, WithoutAMediaDataDirectoryInitFails) {
  m_root.write("/etc/config/medialibrary.conf", "");
  EXPECT_NE(failingInit("can not get hdd path\n"), 0);
}

TEST_F(Music, AWorkFolderThatCannotBeMadeFailsInit) {
  writeFile(data() + "/.system", "in the way");
  EXPECT_NE(failingInit("mymkdir " + serviceFolder() + " fail\n"), 0);
}

TEST_F(Music, ABareNameGoesIntoTheServicesOwnFolderAndAPathIsUsedAsGiven) {
  {
    KxMusicTranscoder music;
    ASSERT_EQ(music.init(m_param), 0);
    EXPECT_EQ(music.getOutputPath(), m_dir / "result");
  }
  m_param.m_outFile = "bare.mp3";
  KxMusicTranscoder music;
  ASSERT_EQ(music.init(m_param), 0);
  EXPECT_EQ(music.getOutputPath(), serviceFolder() + "bare.mp3");
  EXPECT_TRUE(fs::is_directory(serviceFolder()));
  EXPECT_TRUE(music.getProgressLogPath().starts_with(serviceFolder()));
  EXPECT_TRUE(music.getProgressLogPath().ends_with("._progress.log"));
}

TEST_F(Music, TwoTranscodersNeverShareAProgressLog) {
  KxMusicTranscoder first;
  KxMusicTranscoder second;
  ASSERT_EQ(first.init(m_param), 0);
  ASSERT_EQ(second.init(m_param), 0);
  EXPECT_NE(first.getProgressLogPath(), second.getProgressLogPath());
}

TEST_F(Music, TheSoundOfAVideoBecomesAnMp3File) {
  KxMusicTranscoder music;
  m_param.m_aBitrate = 128000;
  m_param.m_aChannel = 2;
  ASSERT_EQ(music.init(m_param), 0);
  EXPECT_EQ(music.getMediaInfo().getAudioTrackCount(), 1);
  KxResource2 cpu = resource(RES2_SW_CPU);
  ASSERT_EQ(waitFor(music.transcode(cpu, true)), 0);

  KxMediaInfo result;
  ASSERT_EQ(result.init(m_dir / "result"), 0);
  EXPECT_EQ(result.getVideoTrackCount(), 0);
  EXPECT_EQ(result.getAudioTrack(0).m_codecId, KX_CODEC_MP3);
  EXPECT_EQ(result.getAudioTrack(0).m_channels, 2);
  EXPECT_NEAR(static_cast<double>(result.m_playTimeMs), 1000, 200);
}

TEST_F(Music, EveryCodecThatCanBeEncodedGivesAPlayableFile) {
  for (const AVCodecID codec :
       {AV_CODEC_ID_MP2, AV_CODEC_ID_MP3, AV_CODEC_ID_AAC, AV_CODEC_ID_AC3, AV_CODEC_ID_EAC3,
        AV_CODEC_ID_DTS, AV_CODEC_ID_FLAC, AV_CODEC_ID_ALAC, AV_CODEC_ID_OPUS, AV_CODEC_ID_VORBIS,
        AV_CODEC_ID_WMAV2, AV_CODEC_ID_WAVPACK, AV_CODEC_ID_TTA, AV_CODEC_ID_PCM_S16LE,
        AV_CODEC_ID_PCM_F32LE}) {
    SCOPED_TRACE(codec);
    fs::remove(m_dir / "result");
    m_param.m_aCodecId = codec;
    m_param.m_aSampleRate = 48000;
    m_param.m_aChannel = 2;
    KxMusicTranscoder music;
    ASSERT_EQ(music.init(m_param), 0);
    KxResource2 cpu = resource(RES2_SW_CPU);
    ASSERT_EQ(waitFor(music.transcode(cpu, true)), 0) << readFile(music.getProgressLogPath());
    KxMediaInfo result;
    ASSERT_EQ(result.init(m_dir / "result"), 0);
    EXPECT_EQ(result.getAudioTrack(0).m_codecId, codec);
    EXPECT_EQ(result.getAudioTrack(0).m_samplerate, 48000);
    EXPECT_EQ(result.getAudioTrack(0).m_channels, 2);
    EXPECT_EQ(result.getVideoTrackCount(), 0);
  }
}

TEST_F(Music, OddSoundsBecomePlayable) {
  const struct {
    const char* name;
    std::vector<std::string> options;
    double seconds;
  } sources[] = {
      {"many.wav", {"-ac", "8", "-ar", "192000", "-c:a", "pcm_f32le"}, 1},
      {"coarse.wav", {"-ac", "1", "-ar", "8000", "-c:a", "pcm_u8"}, 1},
      {"slow.aiff", {"-ac", "1", "-ar", "6000"}, 1},
      {"moment.flac", {"-t", "0.01"}, 0},
      {"raw.aac", {"-ar", "7350", "-ac", "1", "-strict", "-2"}, 1},
      {"mono.mka", {"-c:a", "libopus", "-ac", "1"}, 1},
  };
  m_param.m_aChannel = 2;
  m_param.m_aSampleRate = 44100;
  m_param.m_aBitrate = 128000;
  for (const auto& [name, options, seconds] : sources) {
    SCOPED_TRACE(name);
    std::vector<std::string> words = {"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=d=1"};
    words.insert(words.end(), options.begin(), options.end());
    words.push_back(m_dir / name);
    ASSERT_TRUE(kxtest::run(words));
    fs::remove(m_dir / "result");
    m_param.m_inFile = m_dir / name;
    KxMusicTranscoder music;
    ASSERT_EQ(music.init(m_param), 0);
    KxResource2 cpu = resource(RES2_SW_CPU);
    ASSERT_EQ(waitFor(music.transcode(cpu, true)), 0) << readFile(music.getProgressLogPath());
    KxMediaInfo result;
    ASSERT_EQ(result.init(m_dir / "result"), 0);
    EXPECT_EQ(result.getAudioTrack(0).m_codecId, KX_CODEC_MP3);
    EXPECT_EQ(result.getAudioTrack(0).m_samplerate, 44100);
    EXPECT_NEAR(static_cast<double>(result.m_playTimeMs), seconds * 1000, 300);
  }
}

TEST_F(Music, TheHardwareEngineWritesAacAllTheSame) {
  for (const int type : {2, 3, 4, 5}) {
    fs::remove(m_dir / "result");
    m_param.m_aCodecId = KX_CODEC_AAC;
    m_param.m_aSampleRate = 48000;
    KxMusicTranscoder music;
    ASSERT_EQ(music.init(m_param), 0);
    KxResource2 hardware = resource(type);
    ASSERT_EQ(waitFor(music.transcode(hardware, false)), 0);
    KxMediaInfo result;
    ASSERT_EQ(result.init(m_dir / "result"), 0);
    EXPECT_EQ(result.getAudioTrack(0).m_codecId, KX_CODEC_AAC);
    EXPECT_EQ(result.getAudioTrack(0).m_samplerate, 48000);
  }
}

TEST_F(Music, BothEnginesRefuseMp4) {
  m_param.m_formatId = KX_FORMAT_MP4;
  KxMusicTranscoder music;
  ASSERT_EQ(music.init(m_param), 0);
  RecordingLog log;
  EXPECT_EQ(music.swTranscode(source(), m_dir / "result", false), -1);
  EXPECT_EQ(music.hwTranscode(source(), m_dir / "result", false), -1);
  ASSERT_EQ(log.count("unsupport format\n"), 2u);
  std::vector<std::string> functions;
  for (const auto& line : log.lines()) {
    if (line.text == "unsupport format\n") functions.push_back(line.func);
  }
  EXPECT_THAT(functions, ElementsAre("swTranscode", "hwTranscode"));
  EXPECT_FALSE(fs::exists(m_dir / "result"));
}

TEST_F(Music, ResourcesThatDoNoMusicAreRefusedByName) {
  KxMusicTranscoder music;
  ASSERT_EQ(music.init(m_param), 0);
  for (const int type : {0, 6}) {
    RecordingLog log;
    KxResource2 res = resource(type);
    EXPECT_EQ(music.transcode(res, true), -1);
    EXPECT_TRUE(log.has(5, "KxMusicTranscoder",
                        "res type=" + std::to_string(type) +
                            ", id=res id, devName=res name, we do not transcode music by this "
                            "resource \n"));
  }
}

TEST_F(Music, AnEmptyResourceIsRefused) {
  KxMusicTranscoder music;
  ASSERT_EQ(music.init(m_param), 0);
  KxResource2 res;
  EXPECT_EQ(music.transcode(res, true), -1);
}

TEST_F(Music, WithoutAMediaServiceThereIsNoTool) {
  fs::remove(m_root.file(kEncoder));
  KxMusicTranscoder music;
  ASSERT_EQ(music.init(m_param), 0);
  RecordingLog log;
  KxResource2 cpu = resource(RES2_SW_CPU);
  EXPECT_EQ(music.transcode(cpu, true), -1);
  EXPECT_TRUE(log.has(5, "KxMusicTranscoder", "no tool\n"));
}

TEST_F(Music, TheEncodersLogIsParsedForProgressAndRemovedInTheEnd) {
  m_root.script(kParser, "grep -q working \"$1\" && exit 63\nexit 5\n");
  m_root.script(kEncoder, "echo working >&2\n");
  std::string progressLog;
  {
    KxMusicTranscoder music;
    ASSERT_EQ(music.init(m_param), 0);
    progressLog = music.getProgressLogPath();
    EXPECT_EQ(music.getProgress(), 0);
    KxResource2 cpu = resource(RES2_SW_CPU);
    ASSERT_EQ(waitFor(music.transcode(cpu, true)), 0);
    EXPECT_EQ(readFile(progressLog), "working\n");
    EXPECT_EQ(music.getProgress(), 63);
    fs::remove(progressLog);
    EXPECT_EQ(music.getProgress(), 63);
    writeFile(progressLog, "");
  }
  EXPECT_FALSE(fs::exists(progressLog));
}

TEST_F(Music, WithoutTheLogSwitchNoLogIsWritten) {
  KxMusicTranscoder music;
  ASSERT_EQ(music.init(m_param), 0);
  KxResource2 cpu = resource(RES2_SW_CPU);
  ASSERT_EQ(waitFor(music.transcode(cpu, false)), 0);
  EXPECT_FALSE(fs::exists(music.getProgressLogPath()));
}

TEST_F(Music, ASourceWithoutSoundEndsInAFailedChild) {
  makeClip(m_dir / "silent.mp4", 320, 240, 1, {"-an"});
  m_param.m_inFile = m_dir / "silent.mp4";
  KxMusicTranscoder music;
  ASSERT_EQ(music.init(m_param), 0);
  KxResource2 cpu = resource(RES2_SW_CPU);
  EXPECT_NE(waitFor(music.transcode(cpu, true)), 0);
}

TEST(PdfPages, TheLibrarysOwnCounterReturnsZeroAndTheHostsReplacesIt) {
  void* library = dlopen("libkxtranscode.so.1", RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr);
  using Counter = int (*)(std::string);
  constexpr const char* kSymbol =
      "_Z18kxPdfGetPageNumberNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
  const auto own = reinterpret_cast<Counter>(dlsym(library, kSymbol));
  const auto used = reinterpret_cast<Counter>(dlsym(RTLD_DEFAULT, kSymbol));
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(own("/any.pdf"), 0);
  EXPECT_NE(own, used);
  EXPECT_EQ(used, &kxPdfGetPageNumber);
  dlclose(library);
}
