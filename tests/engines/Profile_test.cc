#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "engines/ProfileSelection.h"
#include "tests/engines/Notes.h"

using engines::applyProfile;
using engines::checkParameters;
using engines::EngineNote;
using engines::selectProfile;
using testing::ElementsAre;

namespace {

using Row = std::tuple<uint64_t, std::string, int, int, int, int, int, int, int, int, int>;

Row asTuple(const TransConfigEntry& e) {
  return {e.key,      e.name,     e.formatId, e.width,       e.height,  e.vCodecId,
          e.aCodecId, e.aBitrate, e.aChannel, e.aSampleRate, e.vProfile};
}

using AudioRow = std::tuple<uint64_t, std::string, int, int, int, int, int>;

AudioRow asTuple(const AudioConfigEntry& e) {
  return {e.key, e.name, e.formatId, e.aCodecId, e.aBitrate, e.aChannel, e.aSampleRate};
}

KxStream audioStream(int codecId) {
  KxStream stream;
  stream.m_isEmpty = false;
  stream.m_type = KX_STREAM_AUDIO;
  stream.m_codecId = codecId;
  return stream;
}

const TransConfigEntry& select(const std::string& file) {
  std::vector<EngineNote> notes;
  const TransConfigEntry* row = selectProfile(file, notes);
  EXPECT_NE(row, nullptr) << file;
  return row != nullptr ? *row : gTransConfig[7];
}

TranscodeParam applied(const std::string& file, TranscodeParam param = TranscodeParam()) {
  applyProfile(select(file), audioStream(KX_CODEC_AAC), true, param);
  return param;
}

}  // namespace

TEST(ProfileTables, TheVideoTableHoldsSevenProfilesAndAnEndRow) {
  const Row rows[8] = {
      {0x1, "mobile240p", 4, 360, 240, 28, 86018, 64000, 2, 44100, 77},
      {0x100, "mobile360p", 4, 640, 360, 28, 86018, 64000, 2, 44100, 77},
      {0x1000000, "mobile480p", 4, 640, 480, 28, 86018, 64000, 2, 44100, 77},
      {0x10000, "ipad720p", 4, 1280, 720, 28, 86018, 128000, 2, 44100, 100},
      {0x100000000, "mobile1080p", 4, 1920, 1080, 28, 86018, 128000, 2, 44100, 100},
      {0x10000000000, "original", 4, 0, 0, 28, 86018, 128000, 2, 44100, -1},
      {0x100000000000, "video2audio", 9, 0, 0, 0, 86017, 128000, 2, 44100, -1},
      {0, "", 4, 240, 360, 28, 86018, 64000, 2, 44100, -1},
  };
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(asTuple(gTransConfig[i]), rows[i]) << "row " << i;
}

TEST(ProfileTables, TheBackgroundAudioTablesAskForAac) {
  EXPECT_EQ(asTuple(gV2ABGTransConfig[0]),
            (AudioRow{0x100000000000, "video2audio", 9, 86018, 128000, 2, 44100}));
  EXPECT_EQ(asTuple(gV2ABGTransConfig[1]), (AudioRow{0, "", 9, 86018, 128000, 2, 44100}));
  EXPECT_EQ(asTuple(gMusicBGTransConfig[0]),
            (AudioRow{0x100000000000, "audio", 9, 86018, 128000, 2, 44100}));
  EXPECT_EQ(asTuple(gMusicBGTransConfig[1]), (AudioRow{0, "", 9, 86018, 128000, 2, 44100}));
}

TEST(ProfileTables, TheOnlySubtitleExtensionIsSrt) {
  ASSERT_NE(gSupportSubtitle[0], nullptr);
  EXPECT_STREQ(gSupportSubtitle[0], ".srt");
  EXPECT_EQ(gSupportSubtitle[1], nullptr);
}

TEST(ProfileSelection, EveryProfileFileNameSelectsItsRowAndSaysSo) {
  const struct {
    const char* file;
    const char* row;
    const char* note;
  } cases[] = {
      {"mobile240p.xml", "mobile240p", "set transcode config as 240p\n"},
      {"mobile360p.xml", "mobile360p", "set transcode config as 360p\n"},
      {"mobile480p.xml", "mobile480p", "set transcode config as 480p\n"},
      {"mobile720p.xml", "ipad720p", "set transcode config as 720p\n"},
      {"ipad720p.xml", "ipad720p", "set transcode config as 720p\n"},
      {"mobile1080p.xml", "original", "set transcode config as 1080p\n"},
  };
  for (const auto& c : cases) {
    std::vector<EngineNote> notes;
    const TransConfigEntry* row = selectProfile(c.file, notes);
    ASSERT_NE(row, nullptr) << c.file;
    EXPECT_EQ(row->name, c.row) << c.file;
    EXPECT_THAT(kxtest::textsOf(notes, "init"), ElementsAre(c.note));
  }
}

TEST(ProfileSelection, OtherNamesSelectNothingWithoutANote) {
  for (const char* file : {"", "mobile240p", "MOBILE240P.XML", "mobile240p.xml ", "original.xml"}) {
    std::vector<EngineNote> notes;
    EXPECT_EQ(selectProfile(file, notes), nullptr) << file;
    EXPECT_TRUE(notes.empty()) << file;
  }
}

TEST(ProfileSelection, TheTwo720pNamesSelectTheSameRow) {
  EXPECT_EQ(&select("mobile720p.xml"), &select("ipad720p.xml"));
  const TranscodeParam param = applied("mobile720p.xml");
  EXPECT_EQ(param.m_width, 1280);
  EXPECT_EQ(param.m_height, 720);
  EXPECT_EQ(param.m_vProfile, 100);
}

TEST(ProfileSelection, The1080pNameKeepsTheSourceSize) {
  TranscodeParam asked;
  asked.m_width = 111;
  asked.m_height = 222;
  const TranscodeParam param = applied("mobile1080p.xml", asked);
  EXPECT_EQ(param.m_width, 0);
  EXPECT_EQ(param.m_height, 0);
  EXPECT_EQ(param.m_aBitrate, 128000);
  EXPECT_EQ(param.m_vProfile, -1);
}

TEST(ProfileSelection, AChosenAudioCodecAndVideoProfileSurvive) {
  TranscodeParam asked;
  asked.m_aCodecId = 86017;
  asked.m_vProfile = 66;
  asked.m_formatId = 6;
  asked.m_vCodecId = 5;
  asked.m_aChannel = 6;
  asked.m_aBitrate = 1;
  asked.m_aSampleRate = 8000;
  const TranscodeParam param = applied("mobile240p.xml", asked);
  EXPECT_EQ(param.m_aCodecId, 86017);
  EXPECT_EQ(param.m_vProfile, 66);
  EXPECT_EQ(param.m_formatId, 4);
  EXPECT_EQ(param.m_vCodecId, 28);
  EXPECT_EQ(param.m_width, 360);
  EXPECT_EQ(param.m_height, 240);
  EXPECT_EQ(param.m_aChannel, 2);
  EXPECT_EQ(param.m_aBitrate, 64000);
  EXPECT_EQ(param.m_aSampleRate, 44100);
}

TEST(ProfileSelection, TheAudioCodecFollowsTheSourceThenThePlatform) {
  const struct {
    KxStream audio;
    bool platformHasAac;
    int expected;
  } cases[] = {
      {audioStream(KX_CODEC_AAC), false, 86018},
      {audioStream(KX_CODEC_AAC), true, 86018},
      {audioStream(KX_CODEC_MP3), true, 86018},
      {audioStream(KX_CODEC_MP3), false, 86017},
      {KxStream(), true, 86018},
      {KxStream(), false, 86017},
  };
  for (const auto& c : cases) {
    TranscodeParam param;
    applyProfile(gTransConfig[0], c.audio, c.platformHasAac, param);
    EXPECT_EQ(param.m_aCodecId, c.expected);
  }
  TranscodeParam param;
  applyProfile(gTransConfig[6], audioStream(KX_CODEC_MP3), true, param);
  EXPECT_EQ(param.m_aCodecId, 86017);
}

TEST(ParameterChecks, AnUnknownFormatFails) {
  TranscodeParam param;
  std::vector<EngineNote> notes;
  EXPECT_EQ(checkParameters(param, notes), 1);
  EXPECT_THAT(kxtest::textsOf(notes, "init"), ElementsAre("unknow format\n"));
}

TEST(ParameterChecks, Mp4ForcesAFastStart) {
  TranscodeParam param;
  param.m_formatId = 4;
  std::vector<EngineNote> notes;
  EXPECT_EQ(checkParameters(param, notes), 0);
  EXPECT_TRUE(param.m_isFastStart);
  EXPECT_THAT(kxtest::textsOf(notes, "init"), ElementsAre("set faststart = true for mp4\n"));
}

TEST(ParameterChecks, OtherFormatsKeepTheFastStartAsAsked) {
  TranscodeParam param;
  param.m_formatId = 6;
  std::vector<EngineNote> notes;
  EXPECT_EQ(checkParameters(param, notes), 0);
  EXPECT_FALSE(param.m_isFastStart);
  EXPECT_TRUE(notes.empty());
}

TEST(ParameterChecks, ANegativeSeekTimeFails) {
  TranscodeParam param;
  param.m_formatId = 5;
  param.m_seekTime = -1;
  std::vector<EngineNote> notes;
  EXPECT_EQ(checkParameters(param, notes), 1);
  EXPECT_THAT(kxtest::textsOf(notes, "init"), ElementsAre("seek time error\n"));
}

TEST(ParameterChecks, OnlyH264IsAccepted) {
  for (const int codec : {0, 27, 29, 174}) {
    TranscodeParam param;
    param.m_formatId = 6;
    param.m_vCodecId = codec;
    std::vector<EngineNote> notes;
    EXPECT_EQ(checkParameters(param, notes), 1);
    EXPECT_THAT(kxtest::textsOf(notes, "init"),
                ElementsAre("we do not support non-H264 codec for now\n"));
  }
}
