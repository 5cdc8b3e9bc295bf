#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <sstream>

#include "KxTransDBMgr.h"
#include "tests/runner/LongFilm.h"
#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// A film of eleven pieces.
LongFilm silentFilm() {
  LongFilm film;
  film.rate = "2";
  film.video = {"-c:v", "libx264", "-preset", "ultrafast", "-g", "40"};
  film.sampleRate = 0;
  return film;
}
constexpr size_t kPieces = 11;

}  // namespace

// Long videos by pieces, with the shipped encoder; a test may put commands before it.
class Segments : public testing::Test {
 protected:
  Segments() {
    encoderAfter("");
    world.setParser("exec sh '" KX_SOURCE_DIR "/tools/xlogparse.sh' \"$@\"\n");
    world.configure("SEGMENT=1\n");
  }

  // Every encoder notes its command before it goes on.
  void encoderAfter(const std::string& body) {
    world.setEncoder("echo \"$*\" >>'" + commandFile() + "'\n" + body +
                     "exec '" KX_BUILD_DIR "/tools/ffmpeg' \"$@\"\n");
  }
  std::string commandFile() const { return world.root().path() + "/commands"; }
  std::vector<std::string> commands(const std::string& part) const {
    std::vector<std::string> found;
    std::istringstream lines(readFile(commandFile()));
    for (std::string line; std::getline(lines, line);)
      if (line.find(part) != std::string::npos) found.push_back(line);
    return found;
  }
  // Encoders of pieces that were started.
  size_t pieceEncoders() const { return commands("-movie_timescale").size(); }
  void forgetCommands() { fs::remove(commandFile()); }

  std::string film(const std::string& name, const LongFilm& kind = silentFilm()) {
    makeLongFilm(kind, world.media(name));
    return world.media(name);
  }
  std::string result(const std::string& name) {
    return world.media("@Transcode/" + name + ".original.mp4");
  }
  std::vector<std::string> checkpoints() const {
    std::vector<std::string> found;
    std::error_code ignored;
    for (const auto& entry :
         fs::directory_iterator(world.root().path() + "/data/.system/transcode", ignored)) {
      if (entry.path().filename().string().starts_with("checkpoint_"))
        found.push_back(entry.path().string());
    }
    return found;
  }
  // Finished pieces that are kept for a profile.
  std::set<std::string> keptPieces(const std::string& profile = "original") const {
    std::set<std::string> names;
    if (checkpoints().empty()) return names;
    std::error_code ignored;
    for (const auto& entry :
         fs::directory_iterator(checkpoints().front() + "/" + profile, ignored)) {
      const std::string name = entry.path().filename().string();
      if (name.starts_with("merge_")) names.insert(name);
    }
    return names;
  }
  void expectDone(const KxDBTaskParam& row) {
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_THAT(world.leftovers(), IsEmpty());
    EXPECT_EQ(world.registrations(), 0u);
  }
  void expectNumbered(const std::string& path) {
    const std::vector<int> numbers = pictureNumbers(path);
    ASSERT_EQ(numbers.size(), 2410u);
    for (size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(numbers[i], static_cast<int>(i));
  }
  // Starts a job whose encoders of pieces from the sixth on never end, and waits for them.
  KxDBTaskParam startAndGetStuck(const std::string& source, uint64_t profiles = PROFILE_ORIGINAL) {
    encoderAfter("case \"$*\" in *-movie_timescale*segment_0000[5-9]*) exec sleep 600 ;; esac\n");
    KxDBTaskParam job = world.addJob(source, profiles);
    world.start(job);
    EXPECT_TRUE(waitUntil([&] { return commands("segment_00006").size() == 1; }));
    EXPECT_TRUE(waitUntil([&] { return keptPieces().size() == 5; }));
    return job;
  }

  RunnerWorld world;
  RecordingLog log;
};

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
  const KxDBTaskParam row = world.run(film("film.mp4", kind), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_EQ(world.reason(row.id), "");
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
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-v", "error", "-i", one};
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

TEST_F(Segments, AStopEndsAllChildrenAtOnceAndTheNextRunDoesWhatIsMissing) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  EXPECT_EQ(world.registrations(), 1u);
  EXPECT_GT(world.unit()->getPid(), 0);
  EXPECT_EQ(world.unit()->getReg().m_resId, "sw_cpu");
  EXPECT_TRUE(waitUntil([&] { return world.unit()->getProgress() >= 40; }));
  const auto begin = std::chrono::steady_clock::now();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_EQ(world.registrations(), 0u);
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

TEST_F(Segments, ASuspendedJobGoesOnWhereItWas) {
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

TEST_F(Segments, OnlyTheCheckpointOfAJobThatWaitsOrRunsStays) {
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

TEST_F(Segments, TheCheckpointOfADeletedJobGoesAlsoWhenAnotherTakesItsNumber) {
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

TEST_F(Segments, ASourceThatChangedIsCutAnew) {
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

TEST_F(Segments, APieceThatIsNotCompleteIsMadeAgain) {
  const KxDBTaskParam job = startAndGetStuck(film("film.mp4"));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  const std::string kept = checkpoints().front() + "/original/";
  fs::resize_file(kept + "merge_segment_00001.mp4",
                  fs::file_size(kept + "merge_segment_00001.mp4") / 2);
  fs::copy_file(kept + "merge_segment_00004.mp4", kept + "merge_segment_00003.mp4",
                fs::copy_options::overwrite_existing);  // as good as the one it replaces
  fs::remove(kept + "merge_segment_00002.mp4");
  forgetCommands();
  encoderAfter("");
  const KxDBTaskParam row = world.runAgain(world.row(job.id));
  EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  EXPECT_EQ(commands("-f segment").size(), 1u);  // the cut pieces of finished ones are gone
}

TEST_F(Segments, AFailingPieceSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *-movie_timescale*segment_00003*) exit 3 ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_THAT(world.reason(row.id), HasSubstr("piece 3"));
  EXPECT_EQ(commands("-f concat").size(), 0u);
  EXPECT_THAT(checkpoints(), IsEmpty());
  expectNumbered(result("film.mp4"));
}

TEST_F(Segments, APieceThatLacksPicturesSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *-movie_timescale*segment_00003*)\n"
               "  set -- -t 60 \"$@\" ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_THAT(world.reason(row.id), HasSubstr("pictures instead of 240"));
  expectNumbered(result("film.mp4"));
}

TEST_F(Segments, AFailingJoinSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *'-f concat'*) exit 3 ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_THAT(world.reason(row.id), HasSubstr("joined"));
  expectNumbered(result("film.mp4"));
}

TEST_F(Segments, ASoundThatFailsSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *'-c:v copy'*reAudio.mp4) exit 3 ;; esac\n");
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL));
  EXPECT_EQ(commands("-f concat").size(), 0u);
  EXPECT_THAT(checkpoints(), IsEmpty());
}

TEST_F(Segments, SeveralProfilesOfAPieceComeFromOneDecoding) {
  world.configure("FANOUT=1\n");
  LongFilm kind = silentFilm();
  kind.rate = "1";
  expectDone(world.run(film("film.mp4", kind), PROFILE_240P | PROFILE_ORIGINAL));
  EXPECT_EQ(pieceEncoders(), commands("-f segment").size() * 11);
  for (const std::string& command : commands("-movie_timescale"))
    EXPECT_THAT(command, testing::AllOf(HasSubstr("/mobile240p/"), HasSubstr("/original/")));
  EXPECT_EQ(commands("-f segment").size(), 1u);
  EXPECT_EQ(commands("-f concat").size(), 2u);
  for (const char* profile : {"mobile240p", "original"}) {
    const std::string made = world.media(std::string("@Transcode/film.mp4.") + profile + ".mp4");
    EXPECT_EQ(pictureNumbers(made).size(), 1205u);
  }
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

TEST_F(Segments, ACardThatFailsLeavesItsPiecesToTheProcessors) {
  world.setCards({"gpu0:maker:model:external:1"});
  world.setAgent("echo agent \"$*\" >>'" + commandFile() + "'\nexit 1\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_GE(commands("agent ").size(), 1u);
  EXPECT_EQ(pieceEncoders(), kPieces);
  EXPECT_EQ(commands("-f concat").size(), 1u);
  expectNumbered(result("film.mp4"));
}

TEST_F(Segments, PiecesAreSpreadOverACardAndTheProcessors) {
  world.setCards({"gpu0:maker:model:external:1"});
  // A card that makes of a piece what the processors make of it.
  world.setAgent("in= out= last=\nfor word; do\n"
                 "case \"$last\" in -i) in=$word ;; -o) out=$word ;; esac\nlast=$word\ndone\n"
                 "echo agent \"$in\" >>'" +
                 commandFile() +
                 "'\nexec ffmpeg -nostdin -y -i \"$in\" -c:v libx264 -preset superfast \"$out\"\n");
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL));
  EXPECT_GE(commands("agent ").size(), 1u);
  EXPECT_EQ(commands("agent ").size() + pieceEncoders(), kPieces);
  EXPECT_EQ(commands("-f concat").size(), 1u);
  expectNumbered(result("film.mp4"));
}
