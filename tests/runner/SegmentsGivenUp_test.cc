#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mount.h>

#include <filesystem>

#include "tests/runner/SegmentsFixture.h"

namespace fs = std::filesystem;
using namespace kxtest;
using testing::HasSubstr;
using testing::IsEmpty;

class SegmentsGivenUp : public SegmentsTest {};

TEST_F(SegmentsGivenUp, AnEncoderThatFailsEitherWayLeavesNothing) {
  encoderAfter("case \"$*\" in *-threads*segment_00003*|*.@__thumb/temp/*) exit 3 ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_GE(pieceEncoders(), 3u);
  EXPECT_THAT(checkpoints(), IsEmpty());
  EXPECT_THAT(world.leftovers(), IsEmpty());
  EXPECT_EQ(world.registrations(), 0u);
}

// And the pieces under way are not waited for.
TEST_F(SegmentsGivenUp, AFailingPieceSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *-threads*segment_00003*) exit 3 ;;\n"
               "*-threads*segment_0000[4-9]*) exec sleep 600 ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_THAT(world.reason(row.id), HasSubstr("piece 3"));
  EXPECT_EQ(commands("-f concat").size(), 0u);
  EXPECT_THAT(checkpoints(), IsEmpty());
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsGivenUp, APieceThatLacksPicturesSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *-threads*segment_00003*)\n"
               "  set -- -t 60 \"$@\" ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_THAT(world.reason(row.id), HasSubstr("pictures instead of 240"));
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsGivenUp, AFailingJoinSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *'-f concat'*) exit 3 ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_THAT(world.reason(row.id), HasSubstr("joined"));
  expectNumbered(result("film.mp4"));
}

// And the pieces under way are not waited for.
TEST_F(SegmentsGivenUp, ASoundThatFailsSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *'-c:v copy'*reAudio.mp4) exit 3 ;;\n"
               "*-threads*) exec sleep 600 ;; esac\n");
  const KxDBTaskParam row = world.run(film("film.mp4"), PROFILE_ORIGINAL);
  expectDone(row);
  EXPECT_THAT(world.reason(row.id), HasSubstr("the encoder of the sound ended with 3"));
  EXPECT_EQ(commands("-f concat").size(), 0u);
  EXPECT_THAT(checkpoints(), IsEmpty());
}

TEST_F(SegmentsGivenUp, ACutThatFailsSendsTheJobTheOtherWay) {
  encoderAfter("case \"$*\" in *'-f segment'*) exit 3 ;; esac\n");
  expectDone(world.run(film("film.mp4"), PROFILE_ORIGINAL));
  EXPECT_TRUE(log.hasPart("goes whole: it could not be cut"));
  EXPECT_EQ(pieceEncoders(), 0u);
  EXPECT_THAT(checkpoints(), IsEmpty());
  expectNumbered(result("film.mp4"));
}

namespace {

// A file system of its own while it lives.
class SmallVolume {
 public:
  explicit SmallVolume(const std::string& folder, const char* size = "size=100m")
      : m_folder(folder) {
    m_isMounted = mount("none", folder.c_str(), "tmpfs", 0, size) == 0;
  }
  ~SmallVolume() {
    if (m_isMounted) umount2(m_folder.c_str(), MNT_DETACH);
  }
  SmallVolume(const SmallVolume&) = delete;
  SmallVolume& operator=(const SmallVolume&) = delete;
  bool isMounted() const { return m_isMounted; }

 private:
  const std::string m_folder;
  bool m_isMounted;
};

struct FullStep {
  const char* name;
  const char* command;
};

void PrintTo(const FullStep& step, std::ostream* out) {
  *out << step.name;
}

}  // namespace

class SegmentsOnAFullDisk : public SegmentsGivenUp {
 protected:
  // The encoder whose command fits fills the volume before it begins.
  void fillBefore(const std::string& command, const std::string& folder) {
    encoderAfter("case \"$*\" in " + command + ") cat /dev/zero >'" + folder +
                 "/filler' 2>/dev/null ;; esac\n");
  }
};

class SegmentsOnADiskThatFills : public SegmentsOnAFullDisk,
                                 public testing::WithParamInterface<FullStep> {};

INSTANTIATE_TEST_SUITE_P(Before, SegmentsOnADiskThatFills,
                         testing::Values(FullStep{"Cut", "*'-f segment'*"},
                                         FullStep{"Sound", "*'-c:v copy'*reAudio.mp4"},
                                         FullStep{"Piece", "*-threads*segment_00003*"}),
                         [](const auto& step) { return std::string(step.param.name); });

TEST_P(SegmentsOnADiskThatFills, TheJobGoesTheOtherWay) {
  const std::string source = film("film.mp4");
  const std::string data = world.root().path() + "/data";
  const SmallVolume volume(data);
  if (!volume.isMounted()) GTEST_SKIP() << "mounting is not possible here";
  fillBefore(GetParam().command, data);
  expectDone(world.run(source, PROFILE_ORIGINAL));
  EXPECT_EQ(commands("-f segment").size(), 1u);
  EXPECT_EQ(commands("-f concat").size(), 0u);
  EXPECT_THAT(checkpoints(), IsEmpty());
  expectNumbered(result("film.mp4"));
}

TEST_F(SegmentsOnAFullDisk, AResultThatHasNoRoomEitherWayFailsTheJobAndLeavesNothing) {
  const SmallVolume volume(world.media(""));
  if (!volume.isMounted()) GTEST_SKIP() << "mounting is not possible here";
  const std::string source = film("film.mp4");
  fillBefore("*'-f concat'*", world.media(""));
  const KxDBTaskParam row = world.run(source, PROFILE_ORIGINAL);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_THAT(world.reason(row.id), HasSubstr("No space left on device"));
  EXPECT_EQ(commands("-f concat").size(), 1u);
  EXPECT_FALSE(fs::exists(result("film.mp4")));
  EXPECT_THAT(checkpoints(), IsEmpty());
  EXPECT_THAT(world.leftovers(), IsEmpty());
  fs::remove(world.media("filler"));
  encoderAfter("");
  expectDone(world.runAgain(row));
}

TEST_F(SegmentsOnAFullDisk, AJobThatGoesOnNeedsRoomOnlyForWhatIsMissing) {
  const std::string source = film("film.mp4");
  // A box that nobody reads makes the film as large as its room has to be.
  constexpr size_t kLarge = size_t{20} << 20;
  std::string box = std::string("\x01\x40\x00\x00", 4) + "free";
  box.resize(kLarge, '\0');
  writeFile(source, readFile(source) + box);
  const std::string data = world.root().path() + "/data";
  const SmallVolume volume(data, "size=200m");
  if (!volume.isMounted()) GTEST_SKIP() << "mounting is not possible here";
  const KxDBTaskParam job = startAndGetStuck(source);
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  KxDBTaskParam described = world.row(job.id);
  described.fileSize = static_cast<int64_t>(fs::file_size(source));
  described.duration = 1205;
  // Five of eleven pieces are used up: there is room for the others and for little more.
  const int64_t missing =
      kxJobRoom(described).pieces - described.fileSize * 5 / 11 + (int64_t{1} << 20);
  const auto free = static_cast<int64_t>(fs::space(data).free);
  ASSERT_GT(free, missing);
  writeFile(data + "/other", std::string(static_cast<size_t>(free - missing), 'x'));
  runTheRest(job);
  EXPECT_EQ(pieceEncoders(), kPieces - 5);
}

TEST_F(SegmentsOnAFullDisk, WithoutRoomForItsPiecesTheFileGoesWhole) {
  const std::string source = film("film.mp4");
  const std::string data = world.root().path() + "/data";
  const SmallVolume volume(data);
  if (!volume.isMounted()) GTEST_SKIP() << "mounting is not possible here";
  writeFile(data + "/other", std::string(size_t{50} << 20, 'x'));
  expectDone(world.run(source, PROFILE_ORIGINAL));
  EXPECT_TRUE(log.hasPart("goes whole: the volume of the work folders lacks the room"));
  EXPECT_EQ(commands("-f segment").size(), 0u);
}
