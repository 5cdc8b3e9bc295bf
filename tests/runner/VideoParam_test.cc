#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KxTranscoder.h"
#include "resources/VideoProfile.h"

using runner::videoParam;
using testing::ElementsAre;

namespace {

KxStream stream(KxStreamType_e type, int codec) {
  KxStream result;
  result.m_isEmpty = false;
  result.m_type = type;
  result.m_codecId = codec;
  result.m_width = 640;
  result.m_height = 360;
  return result;
}

KxStream cover() {
  KxStream result = stream(KX_STREAM_VIDEO, 0);
  result.m_isEmpty = true;
  return result;
}

KxMediaInfo source(const std::vector<KxStream>& streams) {
  KxMediaInfo info;
  info.m_streams = streams;
  for (const KxStream& each : streams) {
    if (each.m_isEmpty) continue;
    if (each.m_type == KX_STREAM_VIDEO) ++info.m_videoCount;
    if (each.m_type == KX_STREAM_AUDIO) ++info.m_audioCount;
  }
  return info;
}

bool mapsAgain(const TranscodeParam& param) {
  return std::find(param.m_extraCmds.begin(), param.m_extraCmds.end(), "-map") !=
         param.m_extraCmds.end();
}

}  // namespace

TEST(VideoParam, TheRowsValuesAreCopiedAndNoProfileFileIsNamed) {
  KxMediaInfo info =
      source({stream(KX_STREAM_VIDEO, KX_CODEC_H264), stream(KX_STREAM_AUDIO, KX_CODEC_AAC)});
  KxDBTaskParam job;
  job.src = "/m/a.mp4";
  job.subSize = 20;
  job.subSeek = -3;
  job.subColor = "#ff0000";
  const TranscodeParam param = videoParam(job, gTransConfig[3], info, "/m/a.srt");
  EXPECT_EQ(param.m_inFile, "/m/a.mp4");
  EXPECT_EQ(param.m_profile, "");
  EXPECT_EQ(param.m_formatId, 4);
  EXPECT_EQ(param.m_width, 1280);
  EXPECT_EQ(param.m_height, 720);
  EXPECT_EQ(param.m_vProfile, 100);
  EXPECT_EQ(param.m_aBitrate, 128000);
  EXPECT_EQ(param.m_aChannel, 2);
  EXPECT_EQ(param.m_aSampleRate, 44100);
  EXPECT_EQ(param.m_aCodecId, KX_CODEC_AAC);
  EXPECT_EQ(param.m_totalDuration, 0);
  EXPECT_EQ(param.m_rotate, -1);
  EXPECT_EQ(param.m_sid, -1);
  EXPECT_EQ(param.m_subtitle, "/m/a.srt");
  EXPECT_EQ(param.m_subSize, 20);
  EXPECT_EQ(param.m_subSeek, -3);
  EXPECT_EQ(param.m_subColor, "#ff0000");
}

TEST(VideoParam, OnlyRightAnglesAreRotations) {
  KxMediaInfo info = source({stream(KX_STREAM_VIDEO, KX_CODEC_H264)});
  KxDBTaskParam job;
  for (const auto& [asked, wanted] :
       {std::pair{0, -1}, {90, 90}, {180, 180}, {270, 270}, {45, -1}}) {
    job.rotation = asked;
    EXPECT_EQ(videoParam(job, gTransConfig[0], info, "").m_rotate, wanted) << asked;
  }
}

TEST(VideoParam, AnAudioTrackThatIsNotThereIsNotAskedFor) {
  KxMediaInfo info = source({stream(KX_STREAM_VIDEO, KX_CODEC_H264)});
  EXPECT_EQ(videoParam(KxDBTaskParam(), gTransConfig[0], info, "").m_aid, -1);
}

TEST(VideoParam, CoverArtBeforeThePictureIsNotTakenForIt) {
  KxMediaInfo behind = source({stream(KX_STREAM_VIDEO, KX_CODEC_H264), cover()});
  EXPECT_FALSE(mapsAgain(videoParam(KxDBTaskParam(), gTransConfig[0], behind, "")));
  KxMediaInfo before = source({cover(), stream(KX_STREAM_VIDEO, KX_CODEC_H264)});
  const TranscodeParam param = videoParam(KxDBTaskParam(), gTransConfig[0], before, "");
  const std::vector<std::string> first(param.m_extraCmds.begin(),
                                       std::next(param.m_extraCmds.begin(), 4));
  EXPECT_THAT(first, ElementsAre("-map", "-0:v:0", "-map", "0:v:1"));
}
