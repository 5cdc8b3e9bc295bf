#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/log.h>
}

#include "KxMediainfo.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"
#include "probe/AsfHeader.h"
#include "probe/CodecNumbers.h"
#include "probe/FactsCache.h"
#include "probe/FormatContext.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::makeClip;
using kxtest::RecordingLog;
using kxtest::run;
using kxtest::TempDir;
using kxtest::writeFile;
using testing::ElementsAre;

namespace {

class MediaInfo : public testing::Test {
 protected:
  void SetUp() override { av_log_set_level(AV_LOG_QUIET); }

  // Rewrites a clip with ffmpeg without encoding it again.
  void remux(const std::vector<std::string>& inputs, const std::vector<std::string>& options,
             const std::string& output) const {
    std::vector<std::string> argv = kxtest::quietFfmpeg();
    for (const std::string& input : inputs) argv.insert(argv.end(), {"-i", input});
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(output);
    ASSERT_TRUE(run(argv)) << output;
  }

  std::string clip(const std::string& name, const std::vector<std::string>& options = {}) const {
    std::string path = m_dir / name;
    makeClip(path, 320, 240, 1.0, options);
    return path;
  }

  std::string picture() const {
    std::string path = m_dir / "cover.png";
    EXPECT_TRUE(run(kxtest::quietFfmpeg(
        {"-f", "lavfi", "-i", "color=red:size=64x64", "-frames:v", "1", path})));
    return path;
  }

  // Facts of a file that init must accept.
  KxMediaInfo probe(const std::string& path) const {
    KxMediaInfo info;
    EXPECT_EQ(info.init(path), 0) << path;
    return info;
  }

  TempDir m_dir;
};

// MPEG program stream, as a part of a DVD title holds it.
const std::vector<std::string> kVobOptions = {"-c:v", "mpeg2video", "-c:a", "mp2", "-f", "vob"};

}  // namespace

TEST_F(MediaInfo, AnEmptyPathFails) {
  RecordingLog log;
  KxMediaInfo info;
  EXPECT_EQ(info.init(""), 1);
  EXPECT_TRUE(log.has(5, "KxMediainfo", "invalid path \n"));
}

TEST_F(MediaInfo, AMissingFileFails) {
  RecordingLog log;
  KxMediaInfo info;
  EXPECT_EQ(info.init(m_dir / "gone.mp4"), 1);
  EXPECT_TRUE(log.has(5, "KxMediainfo", "can not stat " + m_dir / "gone.mp4" + "\n"));
}

TEST_F(MediaInfo, WhatIsNoMediaFileFails) {
  writeFile(m_dir / "empty.mkv", "");
  writeFile(m_dir / "text.mp4", "This is not a film.\n");
  fs::create_directory(m_dir / "folder.avi");
  for (const char* name : {"empty.mkv", "text.mp4", "folder.avi"}) {
    RecordingLog log;
    KxMediaInfo info;
    EXPECT_EQ(info.init(m_dir / name), 1) << name;
    EXPECT_TRUE(log.has("sample video sample = " + m_dir / name + "\n")) << name;
    EXPECT_TRUE(log.has("avformat_open_input() " + m_dir / name + " fail\n")) << name;
    EXPECT_TRUE(info.m_streams.empty());
  }
}

TEST_F(MediaInfo, ANamedPipeFailsWithoutWaitingForAWriter) {
  ASSERT_EQ(mkfifo((m_dir / "pipe.mp4").c_str(), 0600), 0);
  KxMediaInfo info;
  EXPECT_EQ(info.init(m_dir / "pipe.mp4"), 1);
}

TEST_F(MediaInfo, AContainerWithoutStreamsFails) {
  writeFile(m_dir / "tags.mp4", ";FFMETADATA1\ntitle=nothing else\n");
  RecordingLog log;
  KxMediaInfo info;
  EXPECT_EQ(info.init(m_dir / "tags.mp4"), 1);
  EXPECT_FALSE(log.hasPart("fail\n"));
}

TEST_F(MediaInfo, AnMp4FileReportsItsStreams) {
  const std::string path = clip("clip.mp4", {"-profile:v", "baseline", "-level", "3.1"});
  RecordingLog log;
  KxMediaInfo info = probe(path);
  EXPECT_EQ(info.m_inFile, path);
  EXPECT_EQ(info.m_mediaType, 0);
  EXPECT_EQ(info.m_formatId, KX_FORMAT_MP4);
  EXPECT_EQ(info.m_duration, 1);
  EXPECT_GT(info.m_totalBitrate, 1000);
  EXPECT_EQ(info.getVideoTrackCount(), 1);
  EXPECT_EQ(info.getAudioTrackCount(), 1);
  EXPECT_EQ(info.getSubtitleTrackCount(), 0);

  const KxStream video = info.getVideoTrack(0);
  EXPECT_FALSE(video.m_isEmpty);
  EXPECT_EQ(video.m_type, KX_STREAM_VIDEO);
  EXPECT_EQ(video.m_codecId, KX_CODEC_H264);
  EXPECT_EQ(video.m_profile & 0xff, 66);
  EXPECT_EQ(video.m_level, 31);
  EXPECT_GT(video.m_bitrate, 1000);
  EXPECT_EQ(video.m_width, 320);
  EXPECT_EQ(video.m_height, 240);
  EXPECT_EQ(video.m_rotation, 0);
  EXPECT_EQ(video.m_frame_num, 25);
  EXPECT_EQ(video.m_frame_den, 1);
  EXPECT_EQ(video.m_sar_num, 1);
  EXPECT_EQ(video.m_sar_den, 1);
  EXPECT_EQ(video.m_dar_num, 4);
  EXPECT_EQ(video.m_dar_den, 3);
  EXPECT_TRUE(log.has("sar.den=1, sar.num=1\n"));
  EXPECT_TRUE(log.has("dar.den=3, dar.num=4\n"));

  const KxStream audio = info.getAudioTrack(0);
  EXPECT_FALSE(audio.m_isEmpty);
  EXPECT_EQ(audio.m_type, KX_STREAM_AUDIO);
  EXPECT_EQ(audio.m_codecId, KX_CODEC_AAC);
  EXPECT_EQ(audio.m_samplerate, 44100);
  EXPECT_EQ(audio.m_channels, 1);
  EXPECT_GT(audio.m_bitrate, 1000);
}

TEST_F(MediaInfo, EachContainerHasItsFormatId) {
  const struct {
    const char* name;
    int32_t formatId;
    std::vector<std::string> options;
  } kinds[] = {
      {"clip.avi", KX_FORMAT_AVI, {"-c:v", "mpeg4", "-c:a", "libmp3lame"}},
      {"clip.wmv", KX_FORMAT_ASF, {"-c:v", "wmv2", "-c:a", "wmav2"}},
      {"clip.mpg", KX_FORMAT_MPEG, {"-c:v", "mpeg2video", "-c:a", "mp2"}},
      {"clip.mov", KX_FORMAT_MP4, {}},
      {"clip.ts", KX_FORMAT_MPEGTS, {}},
      {"clip.mkv", KX_FORMAT_MATROSKA, {}},
      {"clip.flv", KX_FORMAT_FLV, {}},
      {"clip.rm", KX_FORMAT_RM, {"-s", "352x288", "-c:v", "rv10", "-c:a", "ac3"}},
      {"clip.nut", KX_FORMAT_UNKNOWN, {}},
  };
  for (const auto& kind : kinds) {
    const KxMediaInfo info = probe(clip(kind.name, kind.options));
    EXPECT_EQ(info.m_formatId, kind.formatId) << kind.name;
    EXPECT_EQ(info.getVideoTrackCount(), 1) << kind.name;
    EXPECT_EQ(info.getAudioTrackCount(), 1) << kind.name;
    EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 1000, 250) << kind.name;
  }
}

TEST_F(MediaInfo, CodecsCarryTheLibrarysNumbers) {
  KxMediaInfo hevc = probe(clip(
      "hevc.mkv", {"-c:v", "libx265", "-x265-params", "log-level=none", "-c:a", "libmp3lame"}));
  EXPECT_EQ(hevc.getVideoTrack(0).m_codecId, KX_CODEC_HEVC);
  EXPECT_EQ(hevc.getAudioTrack(0).m_codecId, KX_CODEC_MP3);
}

TEST(CodecNumbers, VideoNumbersFromThreeOnAreOneHigherAndOthersAreEqual) {
  using kxprobe::toLibraryCodecId;
  using kxprobe::toNativeCodecId;
  EXPECT_EQ(toLibraryCodecId(AV_CODEC_ID_NONE), 0);
  EXPECT_EQ(toLibraryCodecId(AV_CODEC_ID_MPEG2VIDEO), 2);
  EXPECT_EQ(toLibraryCodecId(AV_CODEC_ID_H261), 4);
  EXPECT_EQ(toLibraryCodecId(AV_CODEC_ID_H264), KX_CODEC_H264);
  EXPECT_EQ(toLibraryCodecId(AV_CODEC_ID_HEVC), KX_CODEC_HEVC);
  EXPECT_EQ(toLibraryCodecId(AV_CODEC_ID_MP3), KX_CODEC_MP3);
  EXPECT_EQ(toLibraryCodecId(AV_CODEC_ID_AAC), KX_CODEC_AAC);
  // The last number before the audio codecs belongs to no codec and cannot be kept apart.
  for (int id = 0; id < 0x20000; ++id) {
    if (id == 0xffff) continue;
    ASSERT_EQ(toNativeCodecId(toLibraryCodecId(id)), id) << id;
  }
}

TEST_F(MediaInfo, TheRotateTagDecides) {
  for (const int degrees : {90, 180, 270}) {
    const std::string path =
        clip("turned.mkv", {"-metadata:s:v", "ROTATE=" + std::to_string(degrees)});
    EXPECT_EQ(probe(path).getVideoTrack(0).m_rotation, degrees);
  }
}

TEST_F(MediaInfo, AnyOtherRotateTagIsLoggedAndGivesZero) {
  const struct {
    const char* value;
    const char* logged;
  } tags[] = {{"45", "45"}, {"-90", "-90"}, {"360", "360"}, {"left", "0"}, {"0", "0"}};
  for (const auto& tag : tags) {
    const std::string path = clip("odd.mkv", {"-metadata:s:v", std::string("ROTATE=") + tag.value});
    RecordingLog log;
    EXPECT_EQ(probe(path).getVideoTrack(0).m_rotation, 0);
    EXPECT_TRUE(
        log.has(5, "KxMediainfo",
                std::string("atoi(pRotation->value)=") + tag.logged + ", set rotation as 0.\n"))
        << tag.value;
  }
}

// ffmpeg turns the option into a display matrix of the opposite sense.
TEST_F(MediaInfo, ADisplayMatrixIsReadAsTheClockwiseTurnThatMakesThePictureUpright) {
  const struct {
    const char* option;
    int rotation;
  } turns[] = {{"rotate=90", 270}, {"rotate=180", 180}, {"rotate=270", 90}};
  for (const auto& turn : turns) {
    const std::string path = m_dir / "matrix.mp4";
    makeClip(m_dir / "plain.mp4");
    remux({m_dir / "plain.mp4"}, {"-c", "copy", "-metadata:s:v", turn.option}, path);
    EXPECT_EQ(probe(path).getVideoTrack(0).m_rotation, turn.rotation) << turn.option;
  }
}

TEST_F(MediaInfo, AStreamRotatedByFortyFiveDegreesReportsRotationZero) {
  makeClip(m_dir / "plain.mp4");
  remux({m_dir / "plain.mp4"}, {"-c", "copy", "-metadata:s:v", "rotate=45"}, m_dir / "odd.mp4");
  RecordingLog log;
  EXPECT_EQ(probe(m_dir / "odd.mp4").getVideoTrack(0).m_rotation, 0);
  EXPECT_TRUE(log.hasPart(", set rotation as 0.\n"));
}

TEST_F(MediaInfo, AnamorphicPicturesReportBothAspectRatios) {
  const KxStream video = probe(clip("wide.mp4", {"-vf", "setsar=3/2"})).getVideoTrack(0);
  EXPECT_EQ(video.m_sar_num, 3);
  EXPECT_EQ(video.m_sar_den, 2);
  EXPECT_EQ(video.m_dar_num, 2);
  EXPECT_EQ(video.m_dar_den, 1);
}

TEST_F(MediaInfo, AnUnknownAspectRatioIsLoggedAndZero) {
  const std::string path = clip("unknown.flv", {"-c:v", "flv1", "-vf", "setsar=0"});
  RecordingLog log;
  const KxStream video = probe(path).getVideoTrack(0);
  EXPECT_TRUE(log.has(5, "KxMediainfo", "can not get dar & sar\n"));
  EXPECT_EQ(video.m_sar_num, 0);
  EXPECT_EQ(video.m_sar_den, 0);
  EXPECT_EQ(video.m_dar_num, 0);
  EXPECT_EQ(video.m_dar_den, 0);
}

TEST_F(MediaInfo, AFileWhoseOnlyVideoIsCoverArtHasNoVideoTrack) {
  makeClip(m_dir / "clip.mp4");
  for (const char* name : {"song.mp3", "song.m4a"}) {
    const std::string codec = std::string(name).ends_with("mp3") ? "libmp3lame" : "copy";
    remux({m_dir / "clip.mp4", picture()},
          {"-map", "0:a", "-map", "1:v", "-c:v", "copy", "-c:a", codec, "-disposition:v",
           "attached_pic"},
          m_dir / name);
    KxMediaInfo info = probe(m_dir / name);
    RecordingLog log;
    EXPECT_TRUE(info.getVideoTrack(0).m_isEmpty) << name;
    EXPECT_TRUE(log.has(5, "KxMediainfo", "can not find track 0 video\n")) << name;
    EXPECT_EQ(info.getVideoTrackCount(), 0) << name;
    EXPECT_FALSE(info.getAudioTrack(0).m_isEmpty) << name;
    EXPECT_EQ(info.m_streams.size(), 2u) << name;
    EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 1000, 150) << name;
  }
}

TEST_F(MediaInfo, CoverArtBeforeTheFilmIsSkippedWhenTracksAreCounted) {
  makeClip(m_dir / "clip.mp4");
  remux({m_dir / "clip.mp4", picture()},
        {"-map", "1:v", "-map", "0", "-c", "copy", "-disposition:v:0", "attached_pic"},
        m_dir / "film.mp4");
  KxMediaInfo info = probe(m_dir / "film.mp4");
  EXPECT_EQ(info.getVideoTrackCount(), 1);
  EXPECT_EQ(info.getVideoTrack(0).m_width, 320);
  EXPECT_TRUE(info.getVideoTrack(1).m_isEmpty);
}

TEST_F(MediaInfo, TracksAreCountedPerKindInContainerOrder) {
  writeFile(m_dir / "text.srt", "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
  makeClip(m_dir / "small.mp4", 160, 120);
  makeClip(m_dir / "large.mp4", 320, 240);
  remux({m_dir / "small.mp4", m_dir / "large.mp4", m_dir / "text.srt"},
        {"-map", "0:a", "-map", "0:v", "-map", "2", "-map", "1:v", "-map", "1:a", "-c", "copy",
         "-c:a:1", "ac3", "-ar:a:1", "48000"},
        m_dir / "all.mkv");
  KxMediaInfo info = probe(m_dir / "all.mkv");
  EXPECT_EQ(info.getVideoTrackCount(), 2);
  EXPECT_EQ(info.getAudioTrackCount(), 2);
  EXPECT_EQ(info.getSubtitleTrackCount(), 1);
  EXPECT_EQ(info.getVideoTrack(0).m_width, 160);
  EXPECT_EQ(info.getVideoTrack(1).m_width, 320);
  EXPECT_EQ(info.getAudioTrack(0).m_samplerate, 44100);
  EXPECT_EQ(info.getAudioTrack(1).m_samplerate, 48000);
  EXPECT_EQ(info.getSubtitleTrack(0).m_type, KX_STREAM_SUBTITLE);
  EXPECT_FALSE(info.getSubtitleTrack(0).m_isEmpty);
}

TEST_F(MediaInfo, ATrackThatIsNotThereIsEmptyAndLogged) {
  KxMediaInfo info = probe(clip("clip.mp4"));
  RecordingLog log;
  EXPECT_TRUE(info.getVideoTrack(1).m_isEmpty);
  EXPECT_TRUE(info.getAudioTrack(7).m_isEmpty);
  EXPECT_TRUE(info.getSubtitleTrack(0).m_isEmpty);
  EXPECT_TRUE(info.getVideoTrack(-1).m_isEmpty);
  EXPECT_THAT(log.texts(),
              ElementsAre("can not find track 1 video\n", "can not find track 7 audio\n",
                          "can not find track 0 subtitle\n", "trackNo < 0\n"));
  EXPECT_EQ(log.lines()[2].func, "getSubtitleTrack");
}

TEST_F(MediaInfo, BeforeAProbeEveryTrackIsEmpty) {
  KxMediaInfo info;
  RecordingLog log;
  EXPECT_TRUE(info.getVideoTrack(0).m_isEmpty);
  EXPECT_TRUE(info.getAudioTrack(-1).m_isEmpty);
  EXPECT_EQ(log.count("m_streams.size() == 0\n"), 2u);
}

TEST_F(MediaInfo, AnotherInitForgetsTheFirstFile) {
  KxMediaInfo info = probe(clip("clip.mp4"));
  EXPECT_EQ(info.init(m_dir / "gone.mp4"), 1);
  EXPECT_TRUE(info.m_streams.empty());
  EXPECT_EQ(info.getVideoTrackCount(), 0);
  EXPECT_EQ(info.m_formatId, KX_FORMAT_UNKNOWN);
  EXPECT_EQ(info.m_duration, 0);
}

TEST_F(MediaInfo, TheDumpLogsEveryFieldInOrder) {
  KxMediaInfo info;
  info.m_mediaType = 1;
  info.m_duration = 2;
  info.m_formatId = 3;
  info.m_totalBitrate = 4;
  KxStream stream;
  stream.m_isEmpty = false;
  stream.m_type = 1;
  stream.m_codecId = 28;
  stream.m_profile = 77;
  stream.m_bitrate = 5;
  stream.m_samplerate = 6;
  stream.m_channels = 7;
  stream.m_rotation = 90;
  stream.m_level = 31;
  stream.m_width = 8;
  stream.m_height = 9;
  stream.m_frame_num = 30000;
  stream.m_frame_den = 1001;
  info.m_streams.push_back(stream);
  RecordingLog log;
  info.dumpMediaInfo();
  EXPECT_THAT(log.texts(),
              ElementsAre("m_mediaType=1\n", "m_duration=2\n", "m_formatId=3\n",
                          "m_totalBitrate=4\n", "---- stream 0 ----\n", "m_isEmpty=false\n",
                          "m_type=1\n", "m_codecId=28\n", "m_profile=77\n", "m_bitrate=5\n",
                          "m_samplerate=6\n", "m_channels=7\n", "m_rotation=90\n", "m_level=31\n",
                          "m_width=8\n", "m_height=9\n", "m_frame_num=30000\n",
                          "m_frame_den=1001\n", "-------------------\n"));
  log.clear();
  KxStream().dumpStreamInfo();
  EXPECT_TRUE(log.has(5, "KxMediainfo", "m_isEmpty=true\n"));
}

TEST_F(MediaInfo, HostileNamesAreJustNames) {
  makeClip(m_dir / "clip.mp4");
  for (const char* name : {"concat:a|b.mp4", "img%03d.mp4", "-i.mp4", "http:x?a=b&c.mp4",
                           "a\nb'\"$(x).mp4", "Übersicht 視頻.mp4", "bad\xff\xfe.mp4"}) {
    fs::copy_file(m_dir / "clip.mp4", m_dir / name);
    EXPECT_EQ(probe(m_dir / name).getVideoTrackCount(), 1) << name;
  }
}

TEST_F(MediaInfo, FilesThatNameOtherFilesAreRefused) {
  makeClip(m_dir / "clip.mp4");
  makeClip(m_dir / "clip.ts");
  writeFile(m_dir / "list.mp4", "ffconcat version 1.0\nfile clip.mp4\n");
  writeFile(m_dir / "list.m3u8",
            "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:1.0,\nclip.ts\n#EXT-X-ENDLIST\n");
  writeFile(m_dir / "list.sdp", "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nt=0 0\n"
                                "m=video 5004 RTP/AVP 96\na=rtpmap:96 H264/90000\n");
  ASSERT_TRUE(
      run(kxtest::quietFfmpeg({"-f", "lavfi", "-i", "testsrc=duration=1", m_dir / "img%d.jpg"})));
  writeFile(m_dir / "img%d.jpg", "not a picture");
  for (const char* name : {"list.mp4", "list.m3u8", "list.sdp", "img%d.jpg"}) {
    KxMediaInfo info;
    EXPECT_EQ(info.init(m_dir / name), 1) << name;
  }
}

TEST_F(MediaInfo, AProbeEndsWhenItsTimeIsOver) {
  makeClip(m_dir / "clip.mp4");
  kxprobe::FormatContext late(std::chrono::steady_clock::now());
  EXPECT_FALSE(late.open(m_dir / "clip.mp4") && late.readStreamInfo());
}

TEST_F(MediaInfo, AProbeEndsWhenTheWorkThatItIsPartOfHasToEnd) {
  const std::string path = clip("a.mp4");
  KxMediaInfo info;
  {
    const UniqueFd end(eventfd(1, EFD_CLOEXEC));
    const StopSignal stop(end.get());
    EXPECT_EQ(info.init(path), 1);
  }
  EXPECT_EQ(info.init(path), 0) << "the next one reads the file again";
  EXPECT_EQ(info.getVideoTrackCount(), 1);
}

TEST_F(MediaInfo, TheLastFileIsRememberedWithTheSameMessages) {
  const std::string path = clip("clip.mkv", {"-metadata:s:v", "ROTATE=45"});
  RecordingLog log;
  probe(path);
  const auto first = log.texts();
  log.clear();

  const auto stamp = kxprobe::stampOf(path);
  auto facts = kxprobe::FactsCache::instance().find(*stamp);
  ASSERT_TRUE(facts);
  probe(path);
  EXPECT_EQ(log.texts(), first);

  facts->streams[0].width = 1234;
  kxprobe::FactsCache::instance().store(*stamp, *facts);
  EXPECT_EQ(probe(path).getVideoTrack(0).m_width, 1234);
}

TEST_F(MediaInfo, AReplacedFileIsProbedAnew) {
  const std::string path = m_dir / "clip.mp4";
  makeClip(path, 320, 240);
  EXPECT_EQ(probe(path).getVideoTrack(0).m_width, 320);
  const auto time = fs::last_write_time(path);
  makeClip(path, 640, 360);
  fs::last_write_time(path, time);
  EXPECT_EQ(probe(path).getVideoTrack(0).m_width, 640);
}

TEST_F(MediaInfo, SeveralThreadsMayProbeAtOnce) {
  const std::string small = m_dir / "small.mp4";
  const std::string large = m_dir / "large.mp4";
  makeClip(small, 160, 120);
  makeClip(large, 320, 240);
  const auto check = [](const std::string& path, int width) {
    for (int i = 0; i < 5; ++i) {
      KxMediaInfo info;
      ASSERT_EQ(info.init(path), 0);
      ASSERT_EQ(info.getVideoTrack(0).m_width, width);
    }
  };
  std::thread first(check, small, 160);
  std::thread second(check, large, 320);
  first.join();
  second.join();
}

TEST_F(MediaInfo, ADvdIsProbedThroughTheFirstPartOfItsLargestTitle) {
  const std::string folder = m_dir / "disc/VIDEO_TS/";
  fs::create_directories(folder);
  writeFile(folder + "VIDEO_TS.IFO", "DVDVIDEO-VMG");
  makeClip(folder + "VTS_01_1.VOB", 352, 288, 1, kVobOptions);
  makeClip(folder + "VTS_02_1.VOB", 720, 576, 2, kVobOptions);
  makeClip(folder + "VTS_02_2.VOB", 720, 576, 3, kVobOptions);
  for (const std::string& path : {folder + "VIDEO_TS.IFO", m_dir / "disc", m_dir / "disc/"}) {
    RecordingLog log;
    KxMediaInfo info = probe(path);
    EXPECT_EQ(info.m_inFile, path);
    EXPECT_EQ(info.m_mediaType, 1);
    EXPECT_EQ(info.m_formatId, KX_FORMAT_MPEG);
    EXPECT_EQ(info.getVideoTrack(0).m_width, 720);
    EXPECT_TRUE(log.has("sample video sample = " + folder + "VTS_02_1.VOB\n"));
    EXPECT_NEAR(info.m_duration, 2, 1);
    EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 5000, 300);
    EXPECT_EQ(info.m_playTimeSource, KX_PLAYTIME_STATED);
  }
}

TEST_F(MediaInfo, ADiscFolderInLowerCaseIsFound) {
  const std::string folder = m_dir / "disc/video_ts/";
  fs::create_directories(folder);
  writeFile(folder + "video_ts.ifo", "DVDVIDEO-VMG");
  makeClip(folder + "vts_01_1.vob", 352, 288, 1, kVobOptions);
  KxMediaInfo info = probe(m_dir / "disc");
  EXPECT_EQ(info.m_mediaType, 1);
  EXPECT_EQ(info.getVideoTrack(0).m_width, 352);
}

TEST_F(MediaInfo, ABluRayDiscIsProbedThroughItsLargestStream) {
  const std::string folder = m_dir / "disc/BDMV/";
  fs::create_directories(folder + "STREAM");
  writeFile(folder + "index.bdmv", "INDX0200");
  const std::vector<std::string> options = {"-f", "mpegts", "-mpegts_m2ts_mode", "1"};
  makeClip(folder + "STREAM/00000.m2ts", 160, 120, 1, options);
  makeClip(folder + "STREAM/00001.m2ts", 320, 240, 3, options);
  for (const std::string& path : {folder + "index.bdmv", m_dir / "disc"}) {
    KxMediaInfo info = probe(path);
    EXPECT_EQ(info.m_mediaType, 2);
    EXPECT_EQ(info.m_formatId, KX_FORMAT_MPEGTS);
    EXPECT_EQ(info.getVideoTrack(0).m_width, 320);
  }
}

TEST_F(MediaInfo, AFolderNamedLikeADiscWithoutItsIndexIsAnOrdinarySource) {
  fs::create_directories(m_dir / "disc/VIDEO_TS");
  makeClip(m_dir / "disc/VIDEO_TS/VTS_01_1.VOB", 352, 288, 1, kVobOptions);
  RecordingLog log;
  KxMediaInfo info;
  EXPECT_EQ(info.init(m_dir / "disc"), 1);
  EXPECT_EQ(info.m_mediaType, 0);
  EXPECT_TRUE(log.has("avformat_open_input() " + m_dir / "disc" + " fail\n"));
}

TEST_F(MediaInfo, AnOrdinaryFileStatesItsPlayTime) {
  const KxMediaInfo info = probe(clip("clip.mp4"));
  EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 1000, 100);
  EXPECT_EQ(info.m_playTimeSource, KX_PLAYTIME_STATED);
}

TEST_F(MediaInfo, ASubtitleThatOutlastsTheFilmDoesNotCountAsPlayTime) {
  writeFile(m_dir / "text.srt", "1\n00:00:00,000 --> 00:00:09,000\nHello\n");
  makeClip(m_dir / "clip.mp4");
  remux({m_dir / "clip.mp4", m_dir / "text.srt"},
        {"-map", "0", "-map", "1", "-c:v", "copy", "-c:a", "copy", "-c:s", "mov_text"},
        m_dir / "long.mp4");
  const KxMediaInfo info = probe(m_dir / "long.mp4");
  EXPECT_EQ(info.m_duration, 9);
  EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 1000, 100);
  EXPECT_EQ(info.m_playTimeSource, KX_PLAYTIME_STATED);
}

TEST_F(MediaInfo, AFragmentedFileThatClaimsManyHoursIsMeasured) {
  const std::string path =
      clip("frag.mp4", {"-movflags", "frag_keyframe+empty_moov+default_base_moof", "-g", "5"});
  // All bits set in the track's media header: length unknown.
  std::string bytes = kxtest::readFile(path);
  for (size_t at = bytes.find("mdhd"); at != std::string::npos; at = bytes.find("mdhd", at + 1))
    bytes.replace(at + 20, 4, "\xff\xff\xff\xff");
  writeFile(path, bytes);
  const KxMediaInfo info = probe(path);
  EXPECT_GT(info.m_duration, 3600);
  EXPECT_EQ(info.m_playTimeSource, KX_PLAYTIME_MEASURED);
  EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 1000, 100);
}

TEST_F(MediaInfo, ACutFileStillStatesItsFullPlayTime) {
  const std::string path = m_dir / "clip.mp4";
  makeClip(path, 320, 240, 4, {"-movflags", "+faststart"});
  fs::resize_file(path, fs::file_size(path) / 2);
  const KxMediaInfo info = probe(path);
  EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 4000, 100);
  EXPECT_EQ(info.m_playTimeSource, KX_PLAYTIME_STATED);
}

TEST_F(MediaInfo, ACutAsfFileStillStatesItsFullPlayTime) {
  const std::string path = m_dir / "clip.wmv";
  makeClip(path, 320, 240, 4, {"-c:v", "wmv2", "-c:a", "wmav2"});
  fs::resize_file(path, fs::file_size(path) / 3);
  const KxMediaInfo info = probe(path);
  EXPECT_EQ(info.m_duration, 0);
  EXPECT_EQ(info.m_playTimeSource, KX_PLAYTIME_STATED);
  EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 4000, 200);
}

TEST_F(MediaInfo, AHeaderThatIsCutStatesNothing) {
  const std::string path = clip("clip.wmv", {"-c:v", "wmv2", "-c:a", "wmav2"});
  EXPECT_TRUE(kxprobe::asfPlayTimeMs(path));
  for (const size_t size : {size_t{0}, size_t{40}, size_t{100}}) {
    fs::resize_file(path, size);
    EXPECT_FALSE(kxprobe::asfPlayTimeMs(path)) << size;
  }
  EXPECT_FALSE(kxprobe::asfPlayTimeMs(m_dir / "gone.wmv"));
}

TEST_F(MediaInfo, ALengthGuessedFromTheBitRateIsCalledAGuess) {
  makeClip(m_dir / "clip.mp4");
  remux({m_dir / "clip.mp4"}, {"-vn", "-c:a", "copy"}, m_dir / "raw.aac");
  EXPECT_EQ(probe(m_dir / "raw.aac").m_playTimeSource, KX_PLAYTIME_ESTIMATED);
}
