#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/runner/SegmentsFixture.h"

using namespace kxtest;

class SegmentsSpread : public SegmentsTest {};

TEST_F(SegmentsSpread, ACardThatFailsLeavesItsPiecesToTheProcessors) {
  world.setCards({"gpu0:maker:model:external:1"});
  world.setAgent("echo agent \"$*\" >>'" + commandFile() + "'\nexit 1\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_GE(commands("agent ").size(), 1u);
  EXPECT_EQ(pieceEncoders(), kPieces);
  EXPECT_EQ(commands("-f concat").size(), 1u);
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsSpread, ACardWithoutItsProgramLeavesItsPiecesToTheProcessors) {
  world.setCards({"gpu0:maker:model:external:1"});
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL));
  EXPECT_EQ(pieceEncoders(), kPieces);
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsSpread, ACardThatHangsLosesItsPieceAndGetsNoMore) {
  world.configure("STALL_SEC=3\n");
  world.setCards({"gpu0:maker:model:external:1"});
  world.setAgent("echo agent \"$*\" >>'" + commandFile() + "'\nexec sleep 600\n");
  encoderAfter(untilAgents(1));
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL));
  EXPECT_EQ(commands("agent ").size(), 1u);
  EXPECT_EQ(pieceEncoders(), kPieces);
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsSpread, ACardThatBreaksInTheMiddleLosesOnlyWhatItHad) {
  world.setCards({"gpu0:maker:model:external:1"});
  setCard("[ \"$(grep -c '^agent ' '" + commandFile() + "')\" -le 2 ] || exit 1\n");
  encoderAfter(untilAgents(3));
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL));
  EXPECT_EQ(pieceEncoders(), kPieces - 2);
  EXPECT_EQ(commands("-f concat").size(), 1u);
  expectNumbered(result("film.mp4"));
}

// Its sound is none of a piece's business.
TEST_F(SegmentsSpread, ACardThatCannotMakeTheSoundMakesPieces) {
  LongFilm kind = silentFilm();
  kind.sampleRate = 8000;
  kind.channels = 1;
  world.setCards({"gpu0:maker:model:external:1"});
  setCard("");
  world.root().script("/usr/local/medialibrary/bin/ffmpeg",
                      "case \"$*\" in *-encoders*) ffmpeg \"$@\" | grep -v aac; exit ;; esac\n"
                      "echo \"$*\" >>'" +
                          commandFile() + "'\n" + untilAgents(1) +
                          "exec '" KX_BUILD_DIR "/tools/ffmpeg' \"$@\"\n");
  expectDone(world.run(film("film.mp4", kind), PROFILE_ORIGINAL));
  EXPECT_GE(commands("agent ").size(), 1u);
  EXPECT_EQ(commands("agent ").size() + pieceEncoders(), kPieces);
  EXPECT_EQ(toneTimes(result("film.mp4")).size(), 120u);
}

TEST_F(SegmentsSpread, PiecesAreMadeOnAllCardsAndTheProcessorsAtATime) {
  world.setCards({"gpu0:maker:model:external:1", "gpu1:maker:model:external:1"});
  const std::string wait = "until [ -e '" + world.root().path() + "/go' ]; do sleep 0.05; done\n";
  setCard(wait);
  encoderAfter("case \"$*\" in *-threads*) " + wait + ";; esac\n");
  const KxDBTaskParam job = world.addJob(film("film.mp4"), PROFILE_ORIGINAL);
  world.start(job);
  EXPECT_TRUE(waitUntil([&] { return commands("agent ").size() == 2 && pieceEncoders() >= 1; }));
  EXPECT_EQ(world.registrations(), 3u);
  std::set<std::string> pieces;
  for (const std::string& command : commands("agent ")) pieces.insert(command);
  EXPECT_EQ(pieces.size(), 2u);
  writeFile(world.root().path() + "/go", "");
  ASSERT_TRUE(world.waitForUnits());
  expectDone(world.row(job.id));
  EXPECT_EQ(commands("agent ").size() + pieceEncoders(), kPieces);
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsSpread, PiecesAreSpreadOverACardAndTheProcessors) {
  world.setCards({"gpu0:maker:model:external:1"});
  setCard("");
  encoderAfter(untilAgents(2));
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL));
  EXPECT_GE(commands("agent ").size(), 2u);
  EXPECT_EQ(commands("agent ").size() + pieceEncoders(), kPieces);
  EXPECT_EQ(commands("-f concat").size(), 1u);
  expectNumbered(result("film.mp4"));
}
