#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/runner/LongFilm.h"
#include "tests/runner/RunnerWorld.h"

namespace kxtest {

// A film of eleven pieces.
inline LongFilm silentFilm() {
  LongFilm film;
  film.rate = "2";
  film.video = {"-c:v", "libx264", "-preset", "ultrafast", "-g", "40"};
  film.sampleRate = 0;
  return film;
}
constexpr size_t kPieces = 11;

// Long videos by pieces, with the shipped encoder; a test may put commands before it.
class SegmentsTest : public testing::Test {
 protected:
  SegmentsTest() {
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
  size_t pieceEncoders() const { return commands("-threads").size(); }
  void forgetCommands() { std::filesystem::remove(commandFile()); }

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
    for (const auto& entry : std::filesystem::directory_iterator(
             world.root().path() + "/data/.system/transcode", ignored)) {
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
         std::filesystem::directory_iterator(checkpoints().front() + "/" + profile, ignored)) {
      const std::string name = entry.path().filename().string();
      if (name.starts_with("merge_")) names.insert(name);
    }
    return names;
  }
  void expectDone(const KxDBTaskParam& row) {
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_THAT(world.leftovers(), testing::IsEmpty());
    EXPECT_EQ(world.registrations(), 0u);
  }
  void expectNumbered(const std::string& path) {
    const std::vector<int> numbers = pictureNumbers(path);
    ASSERT_EQ(numbers.size(), 2410u);
    for (size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(numbers[i], static_cast<int>(i));
  }
  // Starts a job whose encoders of pieces from the sixth on never end, and waits for them.
  KxDBTaskParam startAndGetStuck(const std::string& source, uint64_t profiles = PROFILE_ORIGINAL) {
    encoderAfter("case \"$*\" in *-threads*segment_0000[5-9]*) exec sleep 600 ;; esac\n");
    KxDBTaskParam job = world.addJob(source, profiles);
    world.start(job);
    constexpr std::chrono::seconds kLimit{60};
    EXPECT_TRUE(waitUntil([&] { return commands("segment_00006").size() == 1; }, kLimit));
    EXPECT_TRUE(waitUntil([&] { return keptPieces().size() == 5; }, kLimit));
    return job;
  }

  // An agent that makes of a piece what the processors make of it, after other commands.
  void setCard(const std::string& before) {
    world.setAgent("in= out= last=\nfor word; do\n"
                   "case \"$last\" in -i) in=$word ;; -o) out=$word ;; esac\nlast=$word\ndone\n"
                   "echo agent \"$in\" >>'" +
                   commandFile() + "'\n" + before +
                   "exec ffmpeg -nostdin -y -i \"$in\" -c:v libx264 -preset superfast \"$out\"\n");
  }
  // Commands by which the processors leave the first pieces to a card.
  std::string untilAgents(int count) const {
    return "case \"$*\" in *-threads*) until [ \"$(grep -c '^agent ' '" + commandFile() +
           "')\" -ge " + std::to_string(count) + " ]; do sleep 0.05; done ;; esac\n";
  }
  // The rest of a job that was stopped when five pieces were there, with an encoder that works.
  void runTheRest(const KxDBTaskParam& job) {
    forgetCommands();
    encoderAfter("");
    expectDone(world.runAgain(world.row(job.id)));
    expectNumbered(result("film.mp4"));
  }
  // Keeps the length of a file and its first bytes.
  static void fillWithZeros(const std::string& path, size_t from) {
    std::string bytes = readFile(path);
    ASSERT_GT(bytes.size(), from);
    writeFile(path, bytes.substr(0, from) + std::string(bytes.size() - from, '\0'));
  }
  // Runs a job that was stopped; the encoder of the whole file must not find its pieces.
  void expectWholeWithoutPieces(const KxDBTaskParam& job) {
    encoderAfter("ls -d '" + checkpoints().front() + "' >>'" + commandFile() + "' 2>&1\n");
    forgetCommands();
    expectDone(world.runAgain(world.row(job.id)));
    EXPECT_EQ(pieceEncoders(), 0u);
    EXPECT_EQ(commands("No such file").size(), 1u) << readFile(commandFile());
    EXPECT_TRUE(std::filesystem::exists(result("film.mp4")));
  }

  RunnerWorld world;
  RecordingLog log;
};

}  // namespace kxtest
