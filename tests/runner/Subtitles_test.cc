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

bool hasEnded(pid_t pid) {
  const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
  return status.empty() || status.find("State:\tZ") != std::string::npos;
}

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

  // As the system's own converter writes it; empty when that fails.
  std::string encodedAs(const std::string& utf8, const std::string& encoding) const {
    writeFile(world.media("utf8"), utf8);
    return run({"iconv", "-f", "UTF-8", "-t", encoding, world.media("utf8")}).value_or("");
  }
  // A video whose only subtitle track says that it holds pictures.
  void makeFilmWithPictureSubtitles() {
    writeFile(world.media("one.srt"), srt("x"));
    run({"ffmpeg", "-v", "error", "-i", world.media("film.mp4"), "-i", world.media("one.srt"),
         "-map", "0", "-map", "1", "-c", "copy", "-c:s", "srt", world.media("film.mkv")});
    std::string film = readFile(world.media("film.mkv"));
    const size_t codec = film.find("S_TEXT/UTF8");
    ASSERT_NE(codec, std::string::npos);
    writeFile(world.media("film.mkv"),
              film.replace(codec, 11, std::string("S_VOBSUB") + std::string(3, '\0')));
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
  const std::string western = srt("Gr\xc3\xbc\xc3\x9f"
                                  "e \xc3\xa0 tous");
  const std::string chinese = srt("\xe4\xbd\xa0\xe5\xa5\xbd\xef\xbc\x8c\xe4\xb8\x96\xe7\x95\x8c");
  const struct {
    const std::string& text;
    const char* encoding;
    const char* mark;
  } cases[] = {
      {western, "UTF-8", "\xef\xbb\xbf"}, {western, "UTF-16LE", "\xff\xfe"},
      {western, "UTF-16BE", "\xfe\xff"},  {western, "UTF-16LE", ""},
      {western, "ISO-8859-1", ""},        {western, "WINDOWS-1252", ""},
      {chinese, "UTF-8", "\xef\xbb\xbf"}, {chinese, "UTF-16LE", "\xff\xfe"},
      {chinese, "UTF-16BE", "\xfe\xff"},  {chinese, "GBK", ""},
  };
  const Picture plain[] = {drawnFrom(western), drawnFrom(chinese), drawnFrom(srt("Grusse a tous"))};
  for (const Picture& picture : plain) EXPECT_GT(picture.lit(), 100);
  EXPECT_FALSE(plain[0].rgb == plain[2].rgb) << "accents do not show";
  for (const auto& [text, encoding, mark] : cases) {
    SCOPED_TRACE(std::string(encoding) + (*mark == '\0' ? "" : " with a mark"));
    const std::string encoded = encodedAs(text, encoding);
    ASSERT_NE(encoded, "");
    const Picture& expected = plain[&text == &western ? 0 : 1];
    EXPECT_TRUE(drawnFrom(mark + encoded).rgb == expected.rgb);
  }
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

TEST_F(Subtitles, OtherKindsOfSubtitleFilesAreDrawn) {
  for (const std::string name : {"other.ass", "other.vtt"}) {
    SCOPED_TRACE(name);
    writeFile(world.media("other.srt"), srt("HELLO"));
    ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-i", world.media("other.srt"), world.media(name)}));
    const std::string plain = readFile(world.media(name));
    for (const char* encoding : {"UTF-8", "UTF-16LE"}) {
      SCOPED_TRACE(encoding);
      const std::string encoded = encodedAs(plain, encoding);
      ASSERT_NE(encoded, "");
      writeFile(world.media(name), encoded);
      EXPECT_GT(drawn([&](KxDBTaskParam& job) { job.subtitle = world.media(name); }).lit(), 100);
    }
  }
}

TEST_F(Subtitles, WhatIsNoSubtitleFailsTheJobAndIsNamed) {
  fs::copy_file(world.media("film.mp4"), world.media("clip.srt"));
  writeFile(world.media("words.srt"), "just some words\n");
  writeFile(world.media("empty.srt"), "");
  for (const char* name : {"clip.srt", "words.srt", "empty.srt"}) {
    const KxDBTaskParam row =
        world.run(world.media("film.mp4"), PROFILE_240P,
                  [&](KxDBTaskParam& job) { job.subtitle = world.media(name); });
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_EQ(world.reason(row.id), "the subtitle is not understood: " + world.media(name));
    EXPECT_TRUE(world.leftovers().empty());
  }
}

TEST_F(Subtitles, AnExtractedTrackServesAgainUntilTheVideoIsReplaced) {
  const auto makeFilm = [this](const std::string& text) {
    writeFile(world.media("a.srt"), srt(text));
    ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-y", "-i", world.media("film.mp4"), "-i",
                     world.media("a.srt"), "-map", "0", "-map", "1", "-c", "copy",
                     world.media("film.mkv")}));
  };
  const std::string extracted = world.media(".@__thumb/.genSub/film.mkv.si0.srt");
  const auto extractedText = [&] {
    const KxDBTaskParam row =
        world.run(world.media("film.mkv"), PROFILE_240P, [](KxDBTaskParam& job) { job.sid = 0; });
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    fs::remove_all(world.media("@Transcode"));
    return readFile(extracted);
  };
  makeFilm("FIRST");
  EXPECT_NE(extractedText().find("FIRST"), std::string::npos);
  const auto made = fs::last_write_time(extracted);
  extractedText();
  EXPECT_EQ(fs::last_write_time(extracted), made);
  makeFilm("SECOND");
  EXPECT_NE(extractedText().find("SECOND"), std::string::npos);
  // Nor does a file that a user put in its place.
  writeFile(extracted, "#EXTM3U\n#EXTINF:1,\n/etc/passwd\n");
  EXPECT_NE(extractedText().find("SECOND"), std::string::npos);
}

// The shipped agent, with an encoder that needs no card.
TEST_F(Subtitles, AResultThatIsThereAlreadyIsToldApart) {
  writeFile(world.media("other.srt"), srt("x"));
  const KxDBTaskParam plain = world.run(world.media("film.mp4"), PROFILE_240P);
  EXPECT_EQ(world.reason(plain.id), "");
  const KxDBTaskParam again = world.runAgain(plain);
  EXPECT_EQ(world.reason(again.id), "");
  const KxDBTaskParam other =
      world.run(world.media("film.mp4"), PROFILE_240P,
                [this](KxDBTaskParam& job) { job.subtitle = world.media("other.srt"); });
  EXPECT_EQ(other.status, JOB_DONE);
  EXPECT_EQ(world.reason(other.id), "mobile240p was there already, with or without this subtitle");
}

TEST_F(Subtitles, ACardDrawsFilesAndTracksToo) {
  world.setCards({"gpu0:maker:model:external:1"});
  fs::copy_file(std::string(KX_BUILD_DIR) + "/tools/transcode_agent",
                world.root().file("/usr/local/medialibrary/bin/transcode_agent"),
                fs::copy_options::overwrite_existing);
  setenv("KX_AGENT_ENCODER", "libx264", 1);
  writeFile(world.media("a.srt"), srt("A LONG LINE OF TEXT"));
  ASSERT_TRUE(
      run({"ffmpeg", "-v", "error", "-i", world.media("film.mp4"), "-i", world.media("a.srt"),
           "-map", "0", "-map", "1", "-c", "copy", "-c:s", "mov_text", world.media("two.mp4")}));
  fs::rename(world.media("two.mp4"), world.media("film.mp4"));
  const auto drawnByTheCard = [this](const std::function<void(KxDBTaskParam&)>& change) {
    log.clear();
    Picture picture = drawn(change);
    EXPECT_TRUE(log.has("resId(gpu0) transcode success\n"));
    return picture;
  };
  EXPECT_EQ(drawnByTheCard({}).lit(), 0);
  const Picture track = drawnByTheCard([](KxDBTaskParam& job) {
    job.sid = 0;
    job.subColor = "yellow";
    job.subSize = 60;
  });
  EXPECT_GT(track.lit(), 100);
  EXPECT_GT(track.mean(1), 2 * track.mean(2));
  writeFile(world.media("wide.srt"), "\xff\xfe" + encodedAs(srt("HELLO"), "UTF-16LE"));
  const Picture file = drawnByTheCard([this](KxDBTaskParam& job) {
    job.subtitle = world.media("wide.srt");
    job.subSize = 60;
    job.subSeek = 2;
  });
  EXPECT_EQ(file.lit(), 0);
  EXPECT_GT(pictureAt("3.5").lit(), 100);
  unsetenv("KX_AGENT_ENCODER");
}

TEST_F(Subtitles, APlaylistInPlaceOfASubtitleFailsTheJob) {
  writeFile(world.media("other.srt"), "#EXTM3U\n/etc/passwd\n");
  const KxDBTaskParam row =
      world.run(world.media("film.mp4"), PROFILE_240P,
                [this](KxDBTaskParam& job) { job.subtitle = world.media("other.srt"); });
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_NE(world.reason(row.id).find("the subtitle is a playlist"), std::string::npos);
}

TEST_F(Subtitles, ATrackOfPicturesIsRefusedAndTheReasonSaysSo) {
  makeFilmWithPictureSubtitles();
  for (const bool withCard : {false, true}) {
    if (withCard) world.setCards({"gpu0:maker:model:external:1"});
    const KxDBTaskParam row =
        world.run(world.media("film.mkv"), PROFILE_240P, [](KxDBTaskParam& job) { job.sid = 0; });
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_EQ(world.reason(row.id), "mobile240p: subpull: subtitle track 0 of " +
                                        world.media("film.mkv") +
                                        " is stored as pictures and holds no text");
    EXPECT_TRUE(log.has(2, "KxTranscodeUnit2",
                        "transcoder for " + world.media("film.mkv") + " init fail\n"));
    EXPECT_TRUE(world.leftovers().empty());
  }
}

TEST_F(Subtitles, AStopWhileATrackIsExtractedActsAtOnce) {
  // What the extractor starts is stopped with it.
  world.root().script("/usr/local/medialibrary/bin/subpull",
                      "trap '' TERM\nsleep 600 &\necho $! > '" + world.media("started") +
                          "'\nwait\n");
  const KxDBTaskParam job =
      world.addJob(world.media("film.mp4"), PROFILE_240P, [](KxDBTaskParam& row) { row.sid = 0; });
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return readFile(world.media("started")).ends_with("\n"); }));
  const pid_t sleeper = atoi(readFile(world.media("started")).c_str());
  EXPECT_GT(world.unit()->getPid(), 0) << "the unit shows its child";
  const auto asked = std::chrono::steady_clock::now();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_TRUE(world.leftovers().empty());
  EXPECT_FALSE(fs::exists(world.media(".@__thumb/.genSub/film.mp4.si0.srt")));
  EXPECT_TRUE(waitUntil([&] { return hasEnded(sleeper); }));
}

TEST_F(Subtitles, AnExtractorThatHangsFailsTheJobInTheEnd) {
  world.configure("STALL_SEC=1\n");
  world.root().script("/usr/local/medialibrary/bin/subpull", "exec sleep 600\n");
  const KxDBTaskParam row =
      world.run(world.media("film.mp4"), PROFILE_240P, [](KxDBTaskParam& job) { job.sid = 0; });
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_NE(world.reason(row.id), "");
}
