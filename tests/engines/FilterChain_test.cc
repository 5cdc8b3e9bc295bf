#include "engines/FilterChain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

using engines::correctedVideoFilter;
using engines::escapeFilterValue;
using engines::videoFilter;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Source {
  Source(int width, int height) {
    KxStream video;
    video.m_isEmpty = false;
    video.m_type = KX_STREAM_VIDEO;
    video.m_width = width;
    video.m_height = height;
    info.m_streams.push_back(video);
    info.m_videoCount = 1;
    param.m_inFile = "/v/in.mkv";
  }

  KxStream& video() { return info.m_streams.front(); }
  Source& turned(int degrees) {
    video().m_rotation = degrees;
    return *this;
  }
  Source& asked(int width, int height) {
    param.m_width = width;
    param.m_height = height;
    return *this;
  }
  Source& shown(int sarNum, int sarDen, int darNum, int darDen) {
    video().m_sar_num = sarNum;
    video().m_sar_den = sarDen;
    video().m_dar_num = darNum;
    video().m_dar_den = darDen;
    return *this;
  }
  Source& withSubtitleTrack(int codecId) {
    KxStream subtitle;
    subtitle.m_isEmpty = false;
    subtitle.m_type = KX_STREAM_SUBTITLE;
    subtitle.m_codecId = codecId;
    info.m_streams.push_back(subtitle);
    ++info.m_subtitleCount;
    return *this;
  }
  // The corrected chain, or "(plain)".
  std::string chain() {
    const std::vector<std::string> arguments = correctedVideoFilter(param, info);
    if (arguments.empty()) return "(plain)";
    EXPECT_EQ(arguments.size(), 2U);
    EXPECT_EQ(arguments.front(), "-vf");
    return arguments.back();
  }

  TranscodeParam param;
  KxMediaInfo info;
};

constexpr int kSubRip = 94225;
constexpr int kDvdSubtitle = 94208;

}  // namespace

TEST(VideoFilter, JoinsItsPieces) {
  EXPECT_EQ(videoFilter({1280, 720}, 0), "scale=1280:720,format=yuv420p");
  EXPECT_EQ(videoFilter({1280, 720}, 90), "scale=1280:720,transpose=1,format=yuv420p");
  EXPECT_EQ(videoFilter({0, 0}, 180), "vflip,hflip,format=yuv420p");
  EXPECT_EQ(videoFilter({640, 0}, 270), "transpose=2,format=yuv420p");
  EXPECT_EQ(videoFilter({-2, -2}, 45), "format=yuv420p");
}

TEST(VideoFilter, ValuesAreEscapedForTheOptionAndForTheChain) {
  EXPECT_EQ(escapeFilterValue("/plain/path.srt"), "/plain/path.srt");
  EXPECT_EQ(escapeFilterValue("a:b"), "a\\\\:b");
  EXPECT_EQ(escapeFilterValue("it's"), "it\\\\\\'s");
  EXPECT_EQ(escapeFilterValue("[x],y;"), "\\[x\\]\\,y\\;");
}

TEST(CorrectedFilter, LeavesAGoodPictureToThePlainChain) {
  EXPECT_EQ(Source(1920, 1080).shown(1, 1, 16, 9).asked(1280, 720).chain(), "(plain)");
  EXPECT_EQ(Source(1920, 1080).asked(1280, 720).chain(), "(plain)");
  EXPECT_EQ(Source(1920, 1080).chain(), "(plain)");
  EXPECT_EQ(Source(1920, 1080).turned(180).asked(1280, 720).chain(), "(plain)");
}

TEST(CorrectedFilter, LeavesTurnedPicturesOfKnownAspectToThePlainChain) {
  EXPECT_EQ(Source(1920, 1080).shown(1, 1, 16, 9).turned(90).asked(1280, 720).chain(), "(plain)");
  EXPECT_EQ(Source(720, 576).shown(64, 45, 16, 9).asked(360, 240).chain(), "(plain)");
  EXPECT_EQ(Source(720, 576).shown(64, 45, 16, 9).turned(270).chain(), "(plain)");
}

TEST(CorrectedFilter, TurnsBeforeScalingWhenTheAspectIsUnknown) {
  EXPECT_EQ(Source(1920, 1080).turned(90).asked(1280, 720).chain(),
            "transpose=1,scale=404:720,setsar=1,format=yuv420p");
  EXPECT_EQ(Source(1920, 1080).turned(270).asked(1280, 720).chain(),
            "transpose=2,scale=404:720,setsar=1,format=yuv420p");
}

TEST(CorrectedFilter, KeepsTheSizeOfATurnedPictureWhenNoneIsAskedFor) {
  EXPECT_EQ(Source(1920, 1080).turned(90).chain(), "(plain)");
}

TEST(CorrectedFilter, FollowsTheJobsRotation) {
  Source forced(1920, 1080);
  forced.param.m_rotate = 90;
  EXPECT_EQ(forced.asked(1280, 720).chain(), "(plain)");  // scaled upright, then turned: right
  Source unturned(1920, 1080);
  unturned.param.m_rotate = 0;
  EXPECT_EQ(unturned.turned(90).asked(1280, 720).chain(), "scale=1280:720,setsar=1,format=yuv420p");
}

TEST(CorrectedFilter, LimitsTheWidthOfARecomputedSize) {
  Source wide(3840, 1080);
  wide.param.m_rotate = 0;
  EXPECT_EQ(wide.turned(90).asked(1920, 1080).chain(), "scale=1920:540,setsar=1,format=yuv420p");
}

TEST(CorrectedFilter, MakesOddSidesEven) {
  EXPECT_EQ(Source(161, 121).shown(1, 1, 161, 121).chain(), "scale=160:120,format=yuv420p");
  EXPECT_EQ(Source(161, 121).chain(), "scale=160:120,setsar=1,format=yuv420p");
  EXPECT_EQ(Source(161, 120).turned(90).chain(),
            "transpose=1,scale=120:160,setsar=1,format=yuv420p");
}

TEST(CorrectedFilter, LetsTheAspectMakeUpForRoundingOfSmallPictures) {
  EXPECT_EQ(Source(3, 100).chain(), "setsar=1,scale=2:100,format=yuv420p");
  EXPECT_EQ(Source(1, 1).chain(), "scale=2:2,setsar=1,format=yuv420p");
  EXPECT_EQ(Source(2, 2000).asked(360, 240).chain(), "setsar=1,scale=2:240,format=yuv420p");
}

TEST(CorrectedFilter, RecomputesASizeThatThePlainRuleTakesAsItIs) {
  EXPECT_EQ(Source(1280, 792).asked(1280, 720).chain(), "scale=1162:720,setsar=1,format=yuv420p");
}

TEST(CorrectedFilter, KeepsTheKnownAspectWhenTheJobIgnoresItForTheSize) {
  Source source(720, 576);
  source.param.m_noDAR = true;
  EXPECT_EQ(source.shown(64, 45, 16, 9).asked(640, 480).chain(), "(plain)");
  source.turned(90);
  EXPECT_EQ(source.chain(), "transpose=1,scale=384:480,format=yuv420p");
}

TEST(CorrectedFilter, DrawsASubtitleFileOnTheFinishedPicture) {
  Source source(1920, 1080);
  source.param.m_subtitle = "/v/a b's.srt";
  EXPECT_EQ(source.shown(1, 1, 16, 9).asked(1280, 720).chain(),
            "scale=1280:720,subtitles=filename=/v/a\\\\\\ b\\\\\\'s.srt,format=yuv420p");
  EXPECT_EQ(Source(source).turned(90).chain(),
            "transpose=1,scale=720:1280,subtitles=filename=/v/a\\\\\\ b\\\\\\'s.srt,"
            "format=yuv420p");
}

TEST(CorrectedFilter, DrawsATextTrackOfTheSource) {
  Source source(640, 360);
  source.param.m_sid = 1;
  EXPECT_EQ(source.withSubtitleTrack(kSubRip).chain(), "(plain)");  // there is no second track
  EXPECT_EQ(source.withSubtitleTrack(kSubRip).chain(),
            "subtitles=filename=/v/in.mkv:si=1,format=yuv420p");
}

TEST(CorrectedFilter, LeavesOutSubtitlesThatArePictures) {
  Source source(640, 360);
  source.param.m_sid = 0;
  EXPECT_EQ(source.withSubtitleTrack(kDvdSubtitle).chain(), "(plain)");
}

TEST(CorrectedFilter, LeavesOutTracksOfADiscFolder) {
  Source source(640, 360);
  source.param.m_sid = 0;
  source.info.m_mediaType = 1;
  EXPECT_EQ(source.withSubtitleTrack(kSubRip).chain(), "(plain)");
}

TEST(CorrectedFilter, ShiftsTheSubtitleWithTheStartOfTheJob) {
  Source source(640, 360);
  source.param.m_subtitle = "/s.srt";
  source.param.m_seekTime = 10;
  source.param.m_subSeek = 3;
  EXPECT_EQ(source.chain(),
            "setpts=PTS+(7)/TB,subtitles=filename=/s.srt,setpts=PTS-(7)/TB,format=yuv420p");
}

TEST(CorrectedFilter, StylesTheSubtitleAsAsked) {
  Source source(640, 360);
  source.param.m_subtitle = "/s.srt";
  source.param.m_subSize = 30;
  source.param.m_subColor = "#ff8000";
  EXPECT_EQ(source.chain(),
            "subtitles=filename=/s.srt:force_style=Fontsize=30\\,PrimaryColour=&H0080ff&,"
            "format=yuv420p");
  const std::pair<const char*, const char*> colours[] = {{"red", "&H0000ff&"},
                                                         {"Yellow", "&H00ffff&"},
                                                         {"&H102030", "&H102030&"},
                                                         {"&H80102030&", "&H80102030&"}};
  for (const auto& [asked, style] : colours) {
    source.param.m_subColor = asked;
    EXPECT_THAT(source.chain(), testing::HasSubstr(std::string("PrimaryColour=") + style));
  }
  source.param.m_subColor = "#12345";  // no colour: the renderer's own
  EXPECT_EQ(source.chain(), "subtitles=filename=/s.srt:force_style=Fontsize=30,format=yuv420p");
}

TEST(SubtitleFilter, KnowsWhatIsAColour) {
  for (const char* colour : {"#a0B1c2", "white", "NAVY", "&H00ff00", "&HFFFFFF&", "&H00ffffff"})
    EXPECT_TRUE(engines::isSubtitleColour(colour)) << colour;
  for (const char* other : {"", "#", "#12345", "#1234567", "#12345g", "reddish", "ff0000", "&H",
                            "&H&", "&H12345", "&H1234567&", "&&H123456"})
    EXPECT_FALSE(engines::isSubtitleColour(other)) << other;
}

TEST(CorrectedFilter, AsksForAFastStartOfMp4) {
  Source source(1920, 1080);
  source.param.m_formatId = 4;
  EXPECT_THAT(correctedVideoFilter(source.param, source.info),
              ElementsAre("-movflags", "+faststart"));
  source.param.m_formatId = 6;
  EXPECT_THAT(correctedVideoFilter(source.param, source.info), IsEmpty());
}

TEST(CorrectedFilter, HasNothingToSayWithoutAPicture) {
  TranscodeParam param;
  KxMediaInfo empty;
  EXPECT_THAT(correctedVideoFilter(param, empty), IsEmpty());
  EXPECT_EQ(Source(0, 0).asked(641, 361).chain(), "(plain)");
}
