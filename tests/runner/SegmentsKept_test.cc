#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "KxTransDBMgr.h"
#include "tests/runner/SegmentsFixture.h"

namespace fs = std::filesystem;
using namespace kxtest;
using namespace std::chrono_literals;
using testing::IsEmpty;

class SegmentsKept : public SegmentsTest {
 protected:
  void stopAtOnce(const KxDBTaskParam& job) {
    const auto begin = std::chrono::steady_clock::now();
    world.stop(job.id);
    ASSERT_TRUE(world.waitForUnits());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
    EXPECT_EQ(world.registrations(), 0u);
    EXPECT_EQ(world.leftovers(), checkpoints());
  }

  // A job that was stopped with some pieces made; encoders work as ever from here on.
  KxDBTaskParam stoppedHalfway() {
    const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
    world.stop(job.id);
    EXPECT_TRUE(world.waitForUnits());
    forgetCommands();
    encoderAfter("");
    return world.row(job.id);
  }
};

TEST_F(SegmentsKept, AStopEndsAllChildrenAtOnceAndTheNextRunDoesWhatIsMissing) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  EXPECT_EQ(world.registrations(), 1u);
  EXPECT_GT(world.unit()->getPid(), 0);
  EXPECT_EQ(world.unit()->getReg().m_resId, "sw_cpu");
  EXPECT_TRUE(waitUntil([&] { return world.unit()->getProgress() >= 40; }));
  stopAtOnce(job);
  EXPECT_EQ(keptPieces().size(), 5u);

  forgetCommands();
  encoderAfter("");
  expectDone(world.runAgain(world.row(job.id)));
  EXPECT_EQ(pieceEncoders(), kPieces - 5);
  EXPECT_EQ(commands("-f segment").size(), 0u);
  EXPECT_EQ(commands("reAudio.mp4").size(), 1u);  // when joining
  EXPECT_THAT(checkpoints(), IsEmpty());
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsKept, AStopWhileTheSourceIsCutLosesNothingButTheCut) {
  encoderAfter("case \"$*\" in *'-f segment'*) exec sleep 600 ;; esac\n");
  const KxDBTaskParam job = world.addJob(film("film.mp4"), PROFILE_ORIGINAL);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return commands("-f segment").size() == 1; }));
  stopAtOnce(job);
  runTheRest(job);
  EXPECT_EQ(commands("-f segment").size(), 1u);
  EXPECT_EQ(pieceEncoders(), kPieces);
}

TEST_F(SegmentsKept, AStopWhileThePiecesAreJoinedLosesNothingButTheJoin) {
  encoderAfter("case \"$*\" in *'-f concat'*) exec sleep 600 ;; esac\n");
  const KxDBTaskParam job = world.addJob(film("film.mp4"), PROFILE_ORIGINAL);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return commands("-f concat").size() == 1; }, 60s));
  stopAtOnce(job);
  EXPECT_EQ(keptPieces().size(), kPieces);
  runTheRest(job);
  EXPECT_EQ(commands("-f concat").size(), 1u);
  EXPECT_EQ(commands("-f segment").size(), 0u);
  EXPECT_EQ(pieceEncoders(), 0u);
}

TEST_F(SegmentsKept, ASuspendedJobGoesOnWhereItWas) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  world.pending(job);
  ASSERT_TRUE(waitUntil([&] { return world.registrations() == 0; }));
  forgetCommands();
  encoderAfter("");
  world.resume(job);
  ASSERT_TRUE(world.waitForUnits());
  expectDone(world.row(job.id));
  EXPECT_EQ(pieceEncoders(), kPieces - 5);
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsKept, OnlyTheCheckpointOfAJobThatWaitsOrRunsStays) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  kxRemoveStrayCheckpoints();
  EXPECT_EQ(keptPieces().size(), 5u);
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  kxRemoveStrayCheckpoints();
  EXPECT_EQ(keptPieces().size(), 5u);
  KxDBTaskParam cancelled = world.row(job.id);
  cancelled.status = JOB_CANCELLED;
  KxTransDBMgr::getInstance()->updateDBJobStatus(cancelled);
  kxRemoveStrayCheckpoints();
  EXPECT_THAT(checkpoints(), IsEmpty());
}

TEST_F(SegmentsKept, TheCheckpointOfADeletedJobGoesAlsoWhenAnotherTakesItsNumber) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  KxDBTaskParam row = world.row(job.id);
  KxTransDBMgr::getInstance()->deleteDBJobById(row);
  makeClip(world.media("other.mp4"));
  EXPECT_EQ(world.addJob(world.media("other.mp4"), PROFILE_240P).id, job.id);
  kxRemoveStrayCheckpoints();
  EXPECT_THAT(checkpoints(), IsEmpty());
}

TEST_F(SegmentsKept, ASourceThatChangedIsCutAnew) {
  const std::string source = film("film.mp4");
  const KxDBTaskParam job = startAndGetStuck(source);
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  fs::last_write_time(source, fs::last_write_time(source) + 2s);
  forgetCommands();
  encoderAfter("");
  expectDone(world.runAgain(world.row(job.id)));
  EXPECT_EQ(pieceEncoders(), kPieces);
}

TEST_F(SegmentsKept, PiecesThatAPowerCutDamagedAreMadeAgain) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  const std::string kept = checkpoints().front() + "/original/";
  fs::resize_file(kept + "merge_segment_00000.mp4",
                  fs::file_size(kept + "merge_segment_00000.mp4") / 2);
  fillWithZeros(kept + "merge_segment_00001.mp4", 4096);  // its index is still there
  fs::remove(kept + "merge_segment_00002.mp4");
  fs::copy_file(kept + "merge_segment_00004.mp4", kept + "merge_segment_00003.mp4",
                fs::copy_options::overwrite_existing);
  runTheRest(job);
  EXPECT_EQ(commands("-f segment").size(), 1u);  // the cut pieces of finished ones are gone
  EXPECT_EQ(pieceEncoders(), kPieces - 1);
}

TEST_F(SegmentsKept, ACutThatAPowerCutDamagedIsMadeAgain) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  fillWithZeros(checkpoints().front() + "/segment_00008.mp4", 4096);
  runTheRest(job);
  EXPECT_EQ(commands("-f segment").size(), 1u);
  EXPECT_EQ(pieceEncoders(), kPieces - 5);
}

TEST_F(SegmentsKept, ASoundThatAPowerCutDamagedIsMadeAgain) {
  LongFilm kind = silentFilm();
  kind.sampleRate = 8000;
  kind.channels = 1;
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4", kind));
  const std::string sound = checkpoints().front() + "/reAudio.mp4";
  ASSERT_TRUE(waitUntil([&] { return fs::exists(sound); }));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  fillWithZeros(sound, 4096);
  runTheRest(job);
  EXPECT_EQ(commands("-f segment").size(), 0u);
  EXPECT_EQ(commands("reAudio.mp4").size(), 2u);  // once more, and when joining
  EXPECT_EQ(toneTimes(result("film.mp4")).size(), 120u);
}

TEST_F(SegmentsKept, AProfileThatIsAddedLeavesThePiecesOfTheOthers) {
  KxDBTaskParam row = stoppedHalfway();
  row.jobFlag |= PROFILE_240P;
  expectDone(world.runAgain(row));
  EXPECT_EQ(commands("/original/").size(), kPieces - 5);
  EXPECT_EQ(commands("/mobile240p/").size(), kPieces);
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsKept, OtherParametersOfAProfileMakeAllItsPiecesAgain) {
  KxDBTaskParam row = stoppedHalfway();
  row.rotation = 180;
  expectDone(world.runAgain(row));
  EXPECT_EQ(pieceEncoders(), kPieces);
  EXPECT_EQ(pictureNumbers(world.media("@Transcode/film.mp4.original.180.mp4")).size(), 2410u);
}

TEST_F(SegmentsKept, ASubtitleThatComesLaterSendsTheJobTheOtherWay) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  writeFile(world.media("film.srt"), "1\n00:00:01,000 --> 00:00:02,000\nHello\n");
  world.configure("SUBTITLE=1\n");
  expectWholeWithoutPieces(job);
}

TEST_F(SegmentsKept, TurnedOffTheyGoBeforeTheFileGoesWhole) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  const std::string file = world.root().file("/etc/config/medialibrary.conf");
  std::string keys = readFile(file);
  keys.replace(keys.find("SEGMENT=1"), 9, "SEGMENT=0");
  writeFile(file, keys);
  expectWholeWithoutPieces(job);
}

TEST_F(SegmentsKept, AJobWhoseSourceIsGoneKeepsNothing) {
  const std::string source = film("film.mp4");
  const KxDBTaskParam job = startAndGetStuck(source);
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  fs::rename(source, world.media("moved.mp4"));
  EXPECT_EQ(world.runAgain(world.row(job.id)).status, JOB_ERROR);
  EXPECT_THAT(checkpoints(), IsEmpty());
  EXPECT_THAT(world.leftovers(), IsEmpty());
}
