#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>

#include "tests/runner/LongFilm.h"
#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct Kind {
  const char* name;
  const char* file;
  LongFilm film;
  double rate;            // pictures a second of the results
  const char* goesWhole;  // why it does; null when it goes by pieces
  bool onCard = false;    // a card makes all pieces
};

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

const std::vector<std::string> kHevc = {
    "-c:v",         "libx265",
    "-preset",      "ultrafast",
    "-x265-params", "log-level=none:keyint=250:bframes=3:ctu=16:min-cu-size=8:open-gop="};

std::vector<std::string> hevc(bool isOpen) {
  std::vector<std::string> options = kHevc;
  options.back() += isOpen ? "1" : "0";
  return options;
}

std::vector<std::string> h264(const std::vector<std::string>& more) {
  std::vector<std::string> options = {"-c:v", "libx264", "-preset", "ultrafast", "-g", "250"};
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

constexpr const char* kNeedEachOther = "its pieces need each other";

const std::vector<Kind> kKinds = {
    {"H264_24fps_B_48k", "film.mp4", {.rate = "24000/1001"}, 24000.0 / 1001, nullptr},
    {"H264_25fps_noB_44k", "film.mp4", {.video = h264({}), .sampleRate = 44100}, 25, nullptr},
    {"H264_30fps_B_51", "film.mkv", {.rate = "30000/1001", .channels = 6}, 30000.0 / 1001, nullptr},
    {"H264_60fps_B_noSound",
     "film.mp4",
     {.rate = "60000/1001", .sampleRate = 0},
     60000.0 / 1001,
     nullptr},
    {"H264_25fps_lateSound", "film.mp4", {.soundDelay = 1.3}, 25, nullptr},
    {"H264_25fps_latePicture", "film.mkv", {.pictureDelay = 0.52}, 25, nullptr},
    {"H264_25fps_transportStream", "film.ts", {}, 25, nullptr},
    {"H264_30fps_variable",
     "film.mp4",
     {.rate = "30",
      .filter = "select='not(between(mod(n,97),40,48))*(mod(n,5)+gt(mod(n,3000),1500))'",
      .sampleRate = 44100},
     30,
     nullptr},
    {"H264_25fps_irregular",
     "film.mkv",
     {.video = h264({"-vsync", "passthrough", "-enc_time_base", "1/1000"}),
      .filter = "settb=1/1000,setpts='N*40+mod(N*7,17)'",
      .sampleRate = 0},
     25,
     "irregular"},
    {"H264_25fps_openGroups",
     "film.mp4",
     {.video = h264({"-bf", "3", "-x264-params", "open-gop=1:bframes=3:b-adapt=0:keyint=250"}),
      .sampleRate = 0},
     25,
     kNeedEachOther},
    {"H264_60fps_B_card",
     "film.mp4",
     {.rate = "60000/1001", .sampleRate = 8000, .channels = 1},
     60000.0 / 1001,
     nullptr,
     true},
    {"H264_24fps_B_card", "film.mp4", {.rate = "24000/1001"}, 24000.0 / 1001, nullptr, true},
    {"HEVC_25fps_B_48k", "film.mp4", {.video = hevc(false)}, 25, nullptr},
    {"HEVC_25fps_openGroups",
     "film.mkv",
     {.video = hevc(true), .sampleRate = 0},
     25,
     kNeedEachOther},
};

}  // namespace

// Every kind of source once whole and once by pieces, through the runner and the shipped encoder.
class SegmentsEqual : public testing::TestWithParam<Kind> {
 protected:
  SegmentsEqual() {
    world.useFrontEnd();
    world.setParser("exec sh '" KX_SOURCE_DIR "/tools/xlogparse.sh' \"$@\"\n");
  }

  // The processors fail on pieces, so that a card makes all of them.
  void useCard() {
    world.setCards({"gpu0:maker:model:external:1"});
    world.setAgent("KX_AGENT_ENCODER=libx264 exec '" KX_BUILD_DIR
                   "/tools/transcode_agent' \"$@\"\n");
    world.setEncoder("case \"$*\" in *-threads*) exit 1 ;; esac\n"
                     "exec '" KX_BUILD_DIR "/tools/ffmpeg' \"$@\"\n");
  }

  std::string transcode(const std::string& name) {
    const KxDBTaskParam row = world.run(world.media(name), PROFILE_ORIGINAL);
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_EQ(world.reason(row.id), "");
    EXPECT_THAT(world.leftovers(), IsEmpty());
    return world.media("@Transcode/" + name + ".original.mp4");
  }

  RunnerWorld world;
  RecordingLog log;
};

TEST_P(SegmentsEqual, TheJoinedResultIsThatOfTheWholeFile) {
  const Kind& kind = GetParam();
  const std::string file = kind.file;
  makeLongFilm(kind.film, world.media(file));
  const std::string copy = "whole" + file.substr(file.rfind('.'));
  fs::create_hard_link(world.media(file), world.media(copy));
  const std::string whole = transcode(copy);
  world.configure("SEGMENT=1\n");
  if (kind.onCard) useCard();
  const std::string joined = transcode(file);
  if (kind.goesWhole != nullptr) {
    EXPECT_THAT(log.texts(), testing::Contains(HasSubstr(kind.goesWhole)));
  } else {
    EXPECT_FALSE(log.hasPart("goes whole"));
    EXPECT_TRUE(log.hasPart("write "));
  }
  EXPECT_EQ(log.has("resId(gpu0) transcode success\n"), kind.onCard);

  const std::vector<int> wanted = pictureNumbers(whole);
  const std::vector<int> shown = pictureNumbers(joined);
  EXPECT_GT(wanted.size(), 1200 * kind.rate - 1);
  EXPECT_EQ(shown.size(), wanted.size());
  size_t different = 0;
  for (size_t i = 0; i < std::min(shown.size(), wanted.size()); ++i)
    different += shown[i] != wanted[i];
  EXPECT_EQ(different, 0u);

  const std::vector<double> times = pictureTimes(joined);
  ASSERT_EQ(times.size(), shown.size());
  double mostOff = 0;
  for (size_t i = 0; i < times.size(); ++i) {
    mostOff = std::max(mostOff, std::abs(times[i] - static_cast<double>(i) / kind.rate));
    if (i == 0) continue;
    ASSERT_GT(times[i], times[i - 1]) << "picture " << i;
  }
  EXPECT_LT(mostOff, 0.1 / kind.rate);

  const std::vector<double> heard = toneTimes(joined);
  const std::vector<double> wantedTones = toneTimes(whole);
  EXPECT_EQ(heard.size(), wantedTones.size());
  EXPECT_EQ(heard.size() > 100, kind.film.sampleRate > 0);
  double mostLate = 0;
  for (size_t i = 0; i < std::min(heard.size(), wantedTones.size()); ++i)
    mostLate = std::max(mostLate, std::abs(heard[i] - wantedTones[i]));
  EXPECT_LT(mostLate, 1 / kind.rate);
  printf("%-28s %-9s pictures %zu/%zu, other pictures %zu, off raster %.2f ms, sound off %.1f ms\n",
         kind.name, kind.goesWhole == nullptr ? "by pieces" : "whole", shown.size(), wanted.size(),
         different, mostOff * 1000, mostLate * 1000);
}

INSTANTIATE_TEST_SUITE_P(Kinds, SegmentsEqual, testing::ValuesIn(kKinds),
                         [](const auto& test) { return test.param.name; });
