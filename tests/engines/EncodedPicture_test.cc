// Encodes real clips and looks at the pictures: upright, undistorted, of the right size.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

#include "engines/FilterChain.h"
#include "tests/engines/EngineFixture.h"

namespace fs = std::filesystem;
using kxtest::makeClip;
using kxtest::quietFfmpeg;
using kxtest::readFile;
using kxtest::run;
using kxtest::writeFile;

namespace {

using Words = std::vector<std::string>;

// First four elements of a display matrix: x' = a x + c y, y' = b x + d y.
struct Matrix {
  int a;
  int b;
  int c;
  int d;
};
constexpr Matrix kUpright{1, 0, 0, 1};
constexpr Matrix kTurned90{0, 1, -1, 0};
constexpr Matrix kTurned180{-1, 0, 0, -1};
constexpr Matrix kTurned270{0, -1, 1, 0};
constexpr Matrix kFlipped{1, 0, 0, -1};
constexpr Matrix kMirrored{-1, 0, 0, 1};
constexpr Matrix kTurned90Mirrored{0, 1, 1, 0};
constexpr Matrix kTurned270Mirrored{0, -1, -1, 0};

// Writes a display matrix into the first track of an MP4 file.
void setDisplayMatrix(const std::string& path, const Matrix& matrix) {
  std::string file = readFile(path);
  const size_t box = file.find("tkhd");
  ASSERT_NE(box, std::string::npos);
  const auto put = [&](size_t index, int value) {
    const uint32_t fixed = static_cast<uint32_t>(value) << 16;
    for (size_t byte = 0; byte < 4; ++byte)
      file[box + 44 + index * 4 + byte] = static_cast<char>(fixed >> (24 - 8 * byte) & 0xFF);
  };
  put(0, matrix.a);
  put(1, matrix.b);
  put(3, matrix.c);
  put(4, matrix.d);
  writeFile(path, file);
}

// Four quarters of different colours, so that every turn and flip shows.
std::string quarters(int width, int height) {
  const auto box = [](const char* x, const char* y, const char* colour) {
    return std::string(",drawbox=x=") + x + ":y=" + y + ":w=iw/2:h=ih/2:t=fill:color=" + colour;
  };
  return "color=red:size=" + std::to_string(width) + "x" + std::to_string(height) +
         ":rate=25:duration=0.2,format=yuv444p" + box("iw/2", "0", "lime") +
         box("0", "ih/2", "blue") + box("iw/2", "ih/2", "white");
}

void makeQuarters(const std::string& path, int width, int height, const Words& options = {}) {
  Words argv = quietFfmpeg({"-f", "lavfi", "-i", quarters(width, height), "-c:v", "libx264",
                            "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
  argv.insert(argv.end(), options.begin(), options.end());
  argv.push_back(path);
  ASSERT_TRUE(run(argv)) << path;
}

// What a player shows: the picture shrunk to 4 x 4 pixels of red, green and blue.
std::string shown(const std::string& path) {
  const auto pixels =
      run(quietFfmpeg({"-i", path, "-frames:v", "1", "-vf", "scale=4:4:flags=area,format=rgb24",
                       "-f", "rawvideo", "-"}));
  return pixels.value_or("");
}

// True when two shrunk pictures look alike. A wrong turn of the quarters differs by 100.
bool sameColours(const std::string& a, const std::string& b) {
  if (a.size() != 48 || b.size() != 48) return false;
  int difference = 0;
  for (size_t i = 0; i < a.size(); ++i)
    difference += std::abs(static_cast<unsigned char>(a[i]) - static_cast<unsigned char>(b[i]));
  return difference < 20 * 48;
}

struct Picture {
  int width = 0;
  int height = 0;
  double aspect = 0;  // as shown
  std::string rotation;
  std::string codec;
  std::string format;
  std::string profile;
};

std::string entry(const std::string& path, const std::string& name) {
  std::string value = run({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                           name, "-of", "default=nw=1:nk=1", path})
                          .value_or("");
  while (value.ends_with('\n')) value.pop_back();
  return value;
}

Picture pictureOf(const std::string& path) {
  std::map<std::string, std::string> facts;
  const std::string wanted = "stream=codec_name,profile,width,height,sample_aspect_ratio,pix_fmt:"
                             "stream_side_data=rotation";
  std::istringstream lines(run({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                                wanted, "-of", "default=nw=1", path})
                               .value_or(""));
  for (std::string key, value; std::getline(lines, key, '=') && std::getline(lines, value);)
    facts[key] = value;
  int num = 1;
  int den = 1;
  if (sscanf(facts["sample_aspect_ratio"].c_str(), "%d:%d", &num, &den) != 2) num = den = 1;
  Picture picture;
  picture.width = atoi(facts["width"].c_str());
  picture.height = atoi(facts["height"].c_str());
  picture.aspect = double(picture.width) * num / (double(picture.height) * den);
  picture.rotation = facts["rotation"];
  picture.codec = facts["codec_name"];
  picture.format = facts["pix_fmt"];
  picture.profile = facts["profile"];
  return picture;
}

bool needsCare(const KxStream& video) {
  const bool square = video.m_sar_num > 0 && video.m_sar_num == video.m_sar_den;
  return !video.m_isEmpty && (video.m_rotation != 0 || video.m_isMirrored || !square ||
                              video.m_width % 2 != 0 || video.m_height % 2 != 0);
}

// Aspect of a source as a player shows it.
double uprightAspect(const std::string& path) {
  const Picture picture = pictureOf(path);
  const int degrees = std::abs(atoi(picture.rotation.c_str()));
  return degrees == 90 || degrees == 270 ? 1.0 / picture.aspect : picture.aspect;
}

}  // namespace

class EncodedPicture : public kxtest::EngineTest {
 protected:
  // Runs a job as the service does: corrected filter, encoder, and the remux when needed.
  Picture encode(TranscodeParam param) {
    KxTranscoder transcoder;
    EXPECT_EQ(transcoder.init(param), 0);
    transcoder.appendExtraCmds(
        engines::correctedVideoFilter(transcoder.getParam(), transcoder.getMediaInfo()));
    KxResource2 cpu = resource(RES2_SW_CPU);
    EXPECT_EQ(finish(transcoder.transcode(cpu, true)), 0)
        << readFile(transcoder.getProgressLogPath());
    if (transcoder.needsStripMetadata()) {
      EXPECT_EQ(finish(transcoder.workaroundStripMetadata(param.m_outFile)), 0);
      fs::rename(param.m_outFile + ".remux.mp4", param.m_outFile);
    }
    return pictureOf(param.m_outFile);
  }

  TranscodeParam sized(const std::string& source, int width, int height) const {
    TranscodeParam param = job(source);
    param.m_width = width;
    param.m_height = height;
    param.m_vProfile = 77;
    return param;
  }
};

struct TurnCase {
  const char* name;
  Matrix matrix;
  const char* sar;  // of the coded picture; "0" leaves it out
  int width;        // asked for
  int height;
};

class EncodedTurns : public EncodedPicture, public testing::WithParamInterface<TurnCase> {};

TEST_P(EncodedTurns, ShowTheSamePictureInTheSameShape) {
  const TurnCase& c = GetParam();
  const std::string source = media("source.mp4");
  makeQuarters(source, 320, 180, {"-vf", std::string("setsar=") + c.sar});
  setDisplayMatrix(source, c.matrix);
  const bool turned = c.matrix.a == 0;
  double aspect = 320.0 / 180.0 * (std::string(c.sar) == "4/3" ? 4.0 / 3.0 : 1.0);
  if (turned) aspect = 1.0 / aspect;

  const Picture result = encode(sized(source, c.width, c.height));
  EXPECT_EQ(result.rotation, "");
  EXPECT_EQ(result.codec, "h264");
  EXPECT_EQ(result.format, "yuv420p");
  EXPECT_NEAR(result.aspect / aspect, 1.0, 0.01)
      << result.width << "x" << result.height << " for " << aspect;
  EXPECT_TRUE(sameColours(shown(source), shown(media("result.mp4"))));
}

INSTANTIATE_TEST_SUITE_P(
    Table, EncodedTurns,
    testing::Values(TurnCase{"Upright", kUpright, "1", 360, 240},
                    TurnCase{"UprightAspectUnknown", kUpright, "0", 360, 240},
                    TurnCase{"Anamorphic", kUpright, "4/3", 360, 240},
                    TurnCase{"AnamorphicOriginal", kUpright, "4/3", 0, 0},
                    TurnCase{"Turned90", kTurned90, "1", 360, 240},
                    TurnCase{"Turned90AspectUnknown", kTurned90, "0", 360, 240},
                    TurnCase{"Turned90AspectUnknownOriginal", kTurned90, "0", 0, 0},
                    TurnCase{"Turned90Original", kTurned90, "1", 0, 0},
                    TurnCase{"Turned90Anamorphic", kTurned90, "4/3", 360, 240},
                    TurnCase{"Turned180", kTurned180, "1", 360, 240},
                    TurnCase{"Turned180AspectUnknown", kTurned180, "0", 360, 240},
                    TurnCase{"Turned270", kTurned270, "1", 360, 240},
                    TurnCase{"Turned270AspectUnknown", kTurned270, "0", 360, 240},
                    TurnCase{"Flipped", kFlipped, "1", 360, 240},
                    TurnCase{"Mirrored", kMirrored, "1", 360, 240},
                    TurnCase{"Turned90Mirrored", kTurned90Mirrored, "1", 360, 240},
                    TurnCase{"Turned90MirroredAspectUnknown", kTurned90Mirrored, "0", 360, 240},
                    TurnCase{"Turned270Mirrored", kTurned270Mirrored, "1", 360, 240}),
    [](const testing::TestParamInfo<TurnCase>& test) { return test.param.name; });

TEST_F(EncodedPicture, TheJobsRotationOverridesTheSources) {
  const std::string source = media("source.mp4");
  makeQuarters(source, 320, 180, {"-vf", "setsar=0"});
  const std::string upright = shown(source);
  setDisplayMatrix(source, kTurned90);
  TranscodeParam param = sized(source, 360, 240);
  param.m_rotate = 0;
  const Picture result = encode(param);
  EXPECT_EQ(result.rotation, "");
  EXPECT_NEAR(result.aspect / (16.0 / 9.0), 1.0, 0.01);
  EXPECT_TRUE(sameColours(upright, shown(param.m_outFile)));
}

TEST_F(EncodedPicture, EverySizeOfTheProfilesIsEncodedFromFullHd) {
  const std::string source = media("source.mp4");
  makeQuarters(source, 1920, 1080, {"-vf", "setsar=1"});
  const std::pair<int, int> expected[6] = {{426, 240},  {640, 360},   {852, 480},
                                           {1280, 720}, {1920, 1080}, {1920, 1080}};
  const char* profiles[6] = {"Main", "Main", "Main", "High", "High", "High"};
  for (size_t i = 0; i < 6; ++i) {
    const TransConfigEntry& row = gTransConfig[i];
    TranscodeParam param = sized(source, row.width, row.height);
    param.m_vProfile = row.vProfile;
    const Picture result = encode(param);
    EXPECT_EQ(std::make_pair(result.width, result.height), expected[i]) << row.name;
    EXPECT_NEAR(result.aspect / (16.0 / 9.0), 1.0, 0.01) << row.name;
    EXPECT_EQ(result.profile, profiles[i]) << row.name;
    EXPECT_TRUE(sameColours(shown(source), shown(param.m_outFile))) << row.name;
  }
}

TEST_F(EncodedPicture, OddAndTinySizesAreEncoded) {
  const std::pair<int, int> sizes[] = {{161, 121}, {160, 121}, {16, 16}, {2, 2}, {1, 1}, {3, 100}};
  for (const auto& [width, height] : sizes) {
    const std::string source = media("source.mkv");
    makeQuarters(source, width, height, {"-c:v", "ffv1", "-pix_fmt", "yuv444p"});
    const Picture result = encode(sized(source, 0, 0));
    EXPECT_EQ(result.width % 2, 0);
    EXPECT_EQ(result.height % 2, 0);
    EXPECT_NEAR(result.aspect * height / width, 1.0, 0.01) << width << "x" << height;
  }
}

TEST_F(EncodedPicture, EveryPixelFormatBecomesPlain) {
  const std::string hdr =
      "log-level=error:colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc";
  const Words formats[] = {{"-c:v", "libx264", "-pix_fmt", "yuv420p10le"},
                           {"-c:v", "libx264", "-pix_fmt", "yuv444p"},
                           {"-c:v", "ffv1", "-pix_fmt", "yuva420p"},
                           {"-c:v", "ffv1", "-pix_fmt", "gray"},
                           {"-c:v", "ffv1", "-pix_fmt", "bgr0"},
                           {"-c:v", "libx265", "-pix_fmt", "yuv420p10le", "-x265-params", hdr}};
  for (const Words& format : formats) {
    const std::string source = media("source.mkv");
    makeQuarters(source, 160, 120, format);
    for (const int profile : {66, 77, 100}) {
      TranscodeParam param = sized(source, 360, 240);
      param.m_vProfile = profile;
      EXPECT_EQ(encode(param).format, "yuv420p") << format.back() << " " << profile;
    }
  }
}

TEST_F(EncodedPicture, OnePictureIsEnough) {
  const std::string source = media("source.mp4");
  makeQuarters(source, 320, 180, {"-frames:v", "1"});
  const Picture result = encode(sized(source, 360, 240));
  EXPECT_EQ(result.width, 426);
  EXPECT_EQ(entry(media("result.mp4"), "stream=nb_frames"), "1");
}

TEST_F(EncodedPicture, InterlacedSourcesAreEncoded) {
  const std::string source = media("source.mpg");
  makeQuarters(source, 720, 576,
               {"-vf", "setsar=64/45", "-c:v", "mpeg2video", "-flags", "+ildct+ilme"});
  const Picture result = encode(sized(source, 640, 480));
  EXPECT_NEAR(result.aspect / (16.0 / 9.0), 1.0, 0.01);
  EXPECT_TRUE(sameColours(shown(source), shown(media("result.mp4"))));
}

TEST_F(EncodedPicture, TheIndexOfAnMp4FileComesFirst) {
  makeClip(media("source.mp4"), 160, 120, 0.4);
  encode(sized(media("source.mp4"), 0, 0));
  const std::string result = readFile(media("result.mp4"));
  EXPECT_LT(result.find("moov"), result.find("mdat"));
}

TEST_F(EncodedPicture, TheAudioIsEncodedAsTheJobAsks) {
  makeClip(media("source.mp4"), 160, 120, 0.5);
  TranscodeParam param = sized(media("source.mp4"), 0, 0);
  param.m_aid = 0;
  const struct {
    int codec;
    int channels;
    int rate;
    const char* expected;
  } cases[] = {{KX_CODEC_AAC, 0, 0, "aac,44100,1\n"},
               {KX_CODEC_AAC, 2, 48000, "aac,48000,2\n"},
               {KX_CODEC_MP3, 2, 44100, "mp3,44100,2\n"}};
  for (const auto& c : cases) {
    param.m_aCodecId = c.codec;
    param.m_aChannel = c.channels;
    param.m_aSampleRate = c.rate;
    param.m_aBitrate = c.rate == 0 ? 0 : 64000;
    encode(param);
    EXPECT_EQ(run({"ffprobe", "-v", "error", "-select_streams", "a", "-show_entries",
                   "stream=codec_name,sample_rate,channels", "-of", "csv=p=0", param.m_outFile}),
              c.expected);
  }
}

TEST_F(EncodedPicture, ASourceWithoutAudioIsEncodedWithTheAudioSettingsOfAProfile) {
  makeQuarters(media("source.mp4"), 160, 120);
  TranscodeParam param = sized(media("source.mp4"), 0, 0);
  param.m_aid = -1;
  param.m_aChannel = 2;
  param.m_aSampleRate = 44100;
  param.m_aBitrate = 64000;
  EXPECT_EQ(encode(param).codec, "h264");
}

TEST_F(EncodedPicture, BitRateFrameRateAndLevelAreTaken) {
  makeClip(media("source.mp4"), 320, 240, 1.0);
  TranscodeParam param = sized(media("source.mp4"), 0, 0);
  param.m_vBitrate = 100000;
  param.m_vFramerate = 10;
  param.m_vLevel = 3.1;
  encode(param);
  EXPECT_EQ(entry(param.m_outFile, "stream=r_frame_rate"), "10/1");
  EXPECT_EQ(entry(param.m_outFile, "stream=level"), "31");
}

TEST_F(EncodedPicture, OtherContainersAreWritten) {
  makeClip(media("source.mp4"), 160, 120, 0.4);
  const std::pair<int, const char*> containers[] = {
      {KX_FORMAT_AVI, "avi"}, {KX_FORMAT_MPEGTS, "mpegts"}, {KX_FORMAT_FLV, "flv"}};
  for (const auto& [id, name] : containers) {
    TranscodeParam param = sized(media("source.mp4"), 0, 0);
    param.m_formatId = id;
    param.m_outFile = media("result");
    encode(param);
    EXPECT_EQ(run({"ffprobe", "-v", "error", "-show_entries", "format=format_name", "-of",
                   "csv=p=0", param.m_outFile}),
              std::string(name) + "\n");
  }
}

// Real files whose shape needs care, when there are any; their first picture is enough.
TEST_F(EncodedPicture, RealFilesLookTheSameAfterwards) {
  const auto folder = kxtest::mediaDir();
  if (!folder) GTEST_SKIP() << "KX_MEDIA_DIR is not set";
  int encoded = 0;
  for (const auto& file : fs::directory_iterator(*folder + "/video")) {
    const std::string source = file.path().string();
    KxMediaInfo info;
    if (info.init(source) != 0 || !needsCare(info.getVideoTrack(0))) continue;
    const std::string before = shown(source);
    if (before.empty()) continue;  // not decodable
    SCOPED_TRACE(source);
    TranscodeParam param = sized(source, 360, 240);
    param.m_extraCmds = {"-frames:v", "1"};
    const Picture result = encode(param);
    EXPECT_NEAR(result.aspect / uprightAspect(source), 1.0, 0.01)
        << result.width << "x" << result.height;
    EXPECT_TRUE(sameColours(before, shown(param.m_outFile)));
    ++encoded;
  }
  EXPECT_GT(encoded, 0);
}

class BurntSubtitle : public EncodedPicture {
 protected:
  static constexpr const char* kText =
      "1\n00:00:02,000 --> 00:00:04,000\nMMMMMMMMMMMMM\nMMMMMMMMMMMMM\n";

  // A black clip of five seconds, with the subtitle as a track or not.
  std::string blackClip(const std::string& name, bool withTrack) {
    writeFile(media("text.srt"), kText);
    Words argv = quietFfmpeg({"-f", "lavfi", "-i", "color=black:size=320x180:rate=5:duration=5",
                              "-i", media("text.srt")});
    const Words codecs = {"-map", "0:v", "-c:v", "libx264", "-preset", "ultrafast"};
    argv.insert(argv.end(), codecs.begin(), codecs.end());
    if (withTrack) argv.insert(argv.end(), {"-map", "1:s", "-c:s", "srt"});
    argv.push_back(media(name));
    EXPECT_TRUE(run(argv));
    return media(name);
  }

  // Brightest value of the result's picture at a time.
  int brightest(double second) const {
    const auto pixels =
        run(quietFfmpeg({"-ss", std::to_string(second), "-i", media("result.mp4"), "-frames:v", "1",
                         "-f", "rawvideo", "-pix_fmt", "gray", "-"}));
    int value = 0;
    for (const char c : pixels.value_or(""))
      value = std::max<int>(value, static_cast<unsigned char>(c));
    return value;
  }
};

TEST_F(BurntSubtitle, AFileIsDrawnAtItsTimes) {
  TranscodeParam param = sized(blackClip("clip.mp4", false), 640, 360);
  fs::create_directories(media("it's, a [folder]; 100%"));
  param.m_subtitle = media("it's, a [folder]; 100%/sub: 'one\\two'.srt");
  writeFile(param.m_subtitle, kText);
  encode(param);
  EXPECT_LT(brightest(1.0), 64);
  EXPECT_GT(brightest(3.0), 192);
  EXPECT_LT(brightest(4.6), 64);
}

TEST_F(BurntSubtitle, ATrackOfTheSourceIsDrawn) {
  TranscodeParam param = sized(blackClip("a clip's \"name\".mkv", true), 0, 0);
  param.m_sid = 0;
  encode(param);
  EXPECT_LT(brightest(1.0), 64);
  EXPECT_GT(brightest(3.0), 192);
}

TEST_F(BurntSubtitle, TheStartOfTheJobAndTheShiftMoveIt) {
  TranscodeParam param = sized(blackClip("clip.mp4", false), 0, 0);
  param.m_subtitle = media("text.srt");
  param.m_seekTime = 2;
  encode(param);
  EXPECT_GT(brightest(1.0), 192);
  EXPECT_LT(brightest(2.6), 64);
  param.m_subSeek = 1;
  encode(param);
  EXPECT_LT(brightest(0.4), 64);
  EXPECT_GT(brightest(2.0), 192);
}
