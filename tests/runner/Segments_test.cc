#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/runner/SegmentsFixture.h"

namespace fs = std::filesystem;
using namespace kxtest;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

class Segments : public SegmentsTest {};

TEST_F(Segments, AreOffUnlessTurnedOn) {
  RunnerWorld plain;
  makeLongFilm(silentFilm(), plain.media("film.mp4"));
  const KxDBTaskParam row = plain.run(plain.media("film.mp4"), PROFILE_ORIGINAL);
  EXPECT_EQ(row.status, JOB_DONE) << plain.reason(row.id);
  EXPECT_FALSE(log.hasPart("support segment transcode"));
}

TEST_F(Segments, ALongFilmGoesByPieces) {
  LongFilm kind = silentFilm();
  kind.sampleRate = 8000;
  kind.channels = 1;
  const KxDBTaskParam row = world.run(film("film.mp4", kind), PROFILE_ORIGINAL | PROFILE_AUDIO);
  expectDone(row);
  EXPECT_EQ(world.reason(row.id), "");
  EXPECT_TRUE(fs::exists(world.media("Video2audio/film.mp3")));
  EXPECT_EQ(pieceEncoders(), kPieces);
  EXPECT_EQ(commands("-f segment").size(), 1u);
  EXPECT_EQ(commands("-f concat").size(), 1u);
  EXPECT_THAT(checkpoints(), IsEmpty());
  expectNumbered(result("film.mp4"));
  EXPECT_TRUE(decodesClean(result("film.mp4")));
  EXPECT_TRUE(hasIndexInFront(result("film.mp4")));
  EXPECT_EQ(toneTimes(result("film.mp4")).size(), 120u);
  const auto late =
      fs::last_write_time(world.media("film.mp4")) - fs::last_write_time(result("film.mp4"));
  EXPECT_TRUE(late >= 0s && late < 1s);
}

TEST_F(Segments, WhatCannotBeCutGoesWhole) {
  const std::string one = film("film.mp4");
  struct Row {
    const char* name;
    std::vector<std::string> options;
  };
  const std::string tone = "sine=d=3";
  for (const Row& row :
       {Row{"it's.mp4", {}}, Row{"100%.mp4", {}}, Row{"two\"quotes.mp4", {}},
        Row{"two sounds.mp4",
            {"-f", "lavfi", "-i", tone, "-f", "lavfi", "-i", tone, "-map", "0", "-map", "1", "-map",
             "2"}},
        Row{"two pictures.mp4", {"-map", "0", "-map", "0"}}, Row{"short.mp4", {"-t", "1100"}}}) {
    std::vector<std::string> argv = kxtest::quietFfmpeg({"-i", one});
    argv.insert(argv.end(), row.options.begin(), row.options.end());
    argv.insert(argv.end(), {"-c:v", "copy", world.media(row.name)});
    ASSERT_TRUE(kxtest::run(argv)) << row.name;
    forgetCommands();
    const KxDBTaskParam done = world.run(world.media(row.name), PROFILE_ORIGINAL);
    EXPECT_NE(done.status, JOB_RUNNING) << row.name;
    EXPECT_EQ(commands("-f segment").size(), 0u) << row.name;
    EXPECT_TRUE(fs::exists(result(row.name))) << row.name << ": " << world.reason(done.id);
  }
}

TEST_F(Segments, ASubtitleKeepsAFilmWhole) {
  writeFile(world.media("film.srt"), "1\n00:00:01,000 --> 00:00:02,000\nHello\n");
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL,
                       [&](KxDBTaskParam& job) { job.subtitle = world.media("film.srt"); }));
  EXPECT_EQ(commands("-f segment").size(), 0u);
  EXPECT_TRUE(log.has("subtitle do not support segment transcode\n"));
}
TEST_F(Segments, SeveralProfilesOfAPieceComeFromOneDecoding) {
  world.configure("FANOUT=1\n");
  LongFilm kind = silentFilm();
  kind.rate = "1";
  expectDone(world.run(film("film.mp4", kind), PROFILE_240P | PROFILE_ORIGINAL));
  EXPECT_EQ(pieceEncoders(), commands("-f segment").size() * 11);
  for (const std::string& command : commands("-threads"))
    EXPECT_THAT(command, testing::AllOf(HasSubstr("/mobile240p/"), HasSubstr("/original/")));
  EXPECT_EQ(commands("-f segment").size(), 1u);
  EXPECT_EQ(commands("-f concat").size(), 2u);
  for (const char* profile : {"mobile240p", "original"}) {
    const std::string made = world.media(std::string("@Transcode/film.mp4.") + profile + ".mp4");
    EXPECT_EQ(pictureNumbers(made).size(), 1205u);
  }
}

TEST_F(Segments, WhatFailsByPiecesComesFromOneDecodingOfTheWholeFile) {
  world.configure("FANOUT=1\n");
  encoderAfter("case \"$*\" in *-threads*) exit 3 ;; esac\n");
  LongFilm kind = silentFilm();
  kind.rate = "1";
  expectDone(world.run(film("film.mp4", kind), PROFILE_240P | PROFILE_ORIGINAL));
  EXPECT_EQ(commands("-f concat").size(), 0u);
  const std::vector<std::string> whole = commands(".@__thumb/temp/");
  ASSERT_EQ(whole.size(), 1u);
  EXPECT_NE(whole[0].find(".@__thumb/temp/"), whole[0].rfind(".@__thumb/temp/"));
  for (const char* profile : {"mobile240p", "original"}) {
    const std::string made = world.media(std::string("@Transcode/film.mp4.") + profile + ".mp4");
    EXPECT_EQ(pictureNumbers(made).size(), 1205u);
  }
}

TEST_F(Segments, AProfileInPlaceIsLeftOut) {
  LongFilm kind = silentFilm();
  kind.rate = "1";
  const std::string source = film("film.mp4", kind);
  expectDone(world.run(source, PROFILE_240P));
  forgetCommands();
  expectDone(world.run(source, PROFILE_240P | PROFILE_ORIGINAL));
  EXPECT_EQ(commands("/original/").size(), kPieces);
  EXPECT_EQ(pieceEncoders(), kPieces);
  forgetCommands();
  expectDone(world.run(source, PROFILE_240P | PROFILE_ORIGINAL));
  EXPECT_FALSE(fs::exists(commandFile()));
}

TEST_F(Segments, WithoutASharedEncoderOneProfileFollowsTheOther) {
  LongFilm kind = silentFilm();
  kind.rate = "1";
  expectDone(world.run(film("film.mp4", kind), PROFILE_240P | PROFILE_ORIGINAL));
  EXPECT_EQ(commands("-f segment").size(), 1u);
  EXPECT_EQ(pieceEncoders(), 22u);
}

TEST_F(Segments, ATurnedFilmGivesAnUprightResult) {
  expectDone(
      world.run(film("film.mp4"), PROFILE_ORIGINAL, [](KxDBTaskParam& job) { job.rotation = 90; }));
  EXPECT_EQ(pieceEncoders(), kPieces);
  const auto probed = probe(world.media("@Transcode/film.mp4.original.90.mp4"));
  ASSERT_TRUE(probed);
  EXPECT_LT(probed->width, probed->height);
  EXPECT_FALSE(probed->turned);
}
