#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <numeric>

#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;

// Looks at the decoded pictures of black videos with subtitles.

namespace {

constexpr int kWidth = 360;
constexpr int kHeight = 240;

struct Picture {
  std::string rgb;

  uint8_t at(int x, int y, int channel) const {
    return static_cast<uint8_t>(
        rgb.at((static_cast<size_t>(y) * kWidth + static_cast<size_t>(x)) * 3 +
               static_cast<size_t>(channel)));
  }
  // Points that are clearly not black.
  int lit() const {
    int count = 0;
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x)
        if (std::max({at(x, y, 0), at(x, y, 1), at(x, y, 2)}) > 80) ++count;
    }
    return count;
  }
  double mean(int channel) const {
    double sum = 0;
    for (int y = 0; y < kHeight; ++y)
      for (int x = 0; x < kWidth; ++x) sum += at(x, y, channel);
    return sum / (kWidth * kHeight);
  }
};

class Subtitles : public testing::Test {
 protected:
  Subtitles() {
    fs::copy_file(std::string(KX_BUILD_DIR) + "/tools/subpull",
                  world.root().file("/usr/local/medialibrary/bin/subpull"));
    run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=black:s=360x240:r=10:d=4", "-c:v",
         "libx264", "-preset", "ultrafast", world.media("film.mp4")});
  }
  // A subtitle that shows from the first to the third second.
  static std::string srt(const std::string& text) {
    return "1\n00:00:01,000 --> 00:00:03,000\n" + text + "\n\n";
  }
  Picture pictureAt(const std::string& second) const {
    return {run({"ffmpeg", "-v", "error", "-ss", second, "-i",
                 world.media("@Transcode/film.mp4.mobile240p.mp4"), "-frames:v", "1", "-f",
                 "rawvideo", "-pix_fmt", "rgb24", "-s", "360x240", "-"})
                .value_or(std::string(size_t{kWidth} * kHeight * 3, '\0'))};
  }
  // The picture in the middle of the subtitle.
  Picture drawn(const std::function<void(KxDBTaskParam&)>& change = {}) {
    fs::remove_all(world.media("@Transcode"));
    const KxDBTaskParam row = world.run(world.media("film.mp4"), PROFILE_240P, change);
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_TRUE(world.leftovers().empty());
    return pictureAt("2");
  }
  Picture drawnFrom(const std::string& bytes) {
    writeFile(world.media("other.srt"), bytes);
    return drawn([this](KxDBTaskParam& job) { job.subtitle = world.media("other.srt"); });
  }

  RunnerWorld world;
  RecordingLog log;
};

}  // namespace

TEST_F(Subtitles, TheFileBesideTheVideoIsDrawnWhenThatIsOn) {
  writeFile(world.media("film.srt"), srt("HELLO"));
  EXPECT_EQ(drawn().lit(), 0);
  world.configure("SUBTITLE=1\n");
  EXPECT_GT(drawn().lit(), 100);
  EXPECT_EQ(pictureAt("0.5").lit(), 0);
  EXPECT_EQ(pictureAt("3.5").lit(), 0);
}

TEST_F(Subtitles, LookTheSameInEveryEncoding) {
  const Picture plain = drawnFrom(srt("Gr\xc3\xbc\xc3\x9f"
                                      "e"));
  EXPECT_GT(plain.lit(), 100);
  EXPECT_EQ(drawnFrom("\xef\xbb\xbf" + srt("Gr\xc3\xbc\xc3\x9f"
                                           "e"))
                .rgb,
            plain.rgb);
  EXPECT_EQ(drawnFrom(srt("Gr\xfc\xdf"
                          "e"))
                .rgb,
            plain.rgb);
  std::string wide = "\xff\xfe";
  for (const char c : srt("Gr\xfc\xdf"
                          "e"))
    wide += std::string(1, c) + '\0';
  EXPECT_TRUE(drawnFrom(wide).rgb == plain.rgb);
  const Picture chinese = drawnFrom(srt("\xe4\xbd\xa0\xe5\xa5\xbd"));
  EXPECT_TRUE(drawnFrom(srt("\xc4\xe3\xba\xc3")).rgb == chinese.rgb);
}

TEST_F(Subtitles, TakeSizeColourAndShiftFromTheJob) {
  writeFile(world.media("other.srt"), srt("HELLO"));
  const auto styled = [&](int size, const std::string& colour, int shift) {
    return drawn([&, size, shift](KxDBTaskParam& job) {
      job.subtitle = world.media("other.srt");
      job.subSize = size;
      job.subColor = colour;
      job.subSeek = shift;
    });
  };
  EXPECT_GT(styled(60, "", 0).lit(), 2 * styled(20, "", 0).lit());
  const Picture red = styled(60, "#ff0000", 0);
  EXPECT_GT(red.mean(0), 4 * red.mean(2));
  EXPECT_EQ(styled(0, "", 2).lit(), 0);
  EXPECT_GT(pictureAt("3.5").lit(), 100);
}

TEST_F(Subtitles, AnEmbeddedTrackIsExtractedAndDrawn) {
  writeFile(world.media("a.srt"), srt("x"));
  writeFile(world.media("b.srt"), srt("A LONG LINE OF TEXT"));
  run({"ffmpeg",
       "-v",
       "error",
       "-i",
       world.media("film.mp4"),
       "-i",
       world.media("a.srt"),
       "-i",
       world.media("b.srt"),
       "-map",
       "0",
       "-map",
       "1",
       "-map",
       "2",
       "-c",
       "copy",
       "-c:s",
       "mov_text",
       world.media("two.mp4")});
  fs::rename(world.media("two.mp4"), world.media("film.mp4"));
  const int little = drawn([](KxDBTaskParam& job) { job.sid = 0; }).lit();
  const int much = drawn([](KxDBTaskParam& job) { job.sid = 1; }).lit();
  EXPECT_GT(little, 0);
  EXPECT_GT(much, 3 * little);
  EXPECT_TRUE(fs::exists(world.media(".@__thumb/.genSub/film.mp4.si1.srt")));
}

TEST_F(Subtitles, APlaylistInPlaceOfASubtitleFailsTheJob) {
  writeFile(world.media("other.srt"), "#EXTM3U\n/etc/passwd\n");
  const KxDBTaskParam row =
      world.run(world.media("film.mp4"), PROFILE_240P,
                [this](KxDBTaskParam& job) { job.subtitle = world.media("other.srt"); });
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_NE(world.reason(row.id).find("the subtitle is a playlist"), std::string::npos);
}
