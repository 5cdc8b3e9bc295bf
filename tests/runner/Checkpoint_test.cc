#include "resources/Checkpoint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;
using namespace runner;

namespace {

const auto kGoOn = [] { return true; };

class CheckpointTest : public testing::Test {
 protected:
  CheckpointTest() {
    job.id = 7;
    job.src = "/media/film.mp4";
  }

  Checkpoint opened() { return Checkpoint::open(job, source, "cut 4 2").value(); }
  // A file on the volume of the checkpoint.
  std::string made(const std::string& text) const {
    std::string path = world.root().path() + "/data/made";
    writeFile(path, text);
    return path;
  }
  size_t folders() const { return world.leftovers().size(); }

  RunnerWorld world;
  KxDBTaskParam job;
  SourceStamp source{5, 1000, 4000};
  // More than is read at a time.
  const std::string bytes = std::string(3000000, 'x') + "end";
};

}  // namespace

TEST_F(CheckpointTest, WhatIsKeptIsFoundAgain) {
  ASSERT_TRUE(opened().keep(made(bytes), "piece", kGoOn));
  EXPECT_FALSE(fs::exists(world.root().path() + "/data/made"));
  const Checkpoint again = opened();
  EXPECT_TRUE(again.isWhole("piece", kGoOn));
  EXPECT_EQ(readFile(again.path("piece")), bytes);
  EXPECT_FALSE(again.isWhole("other", kGoOn));
  EXPECT_EQ(folders(), 1u);
}

TEST_F(CheckpointTest, BytesThatChangedAreNoticed) {
  const Checkpoint kept = opened();
  const std::string piece = kept.path("piece");
  for (const std::string& damaged :
       {bytes.substr(0, bytes.size() / 2), bytes.substr(0, bytes.size() - 1), std::string(),
        std::string(bytes.size(), '\0'),
        bytes.substr(0, 4096) + std::string(bytes.size() - 4096, 0), bytes + "x"}) {
    ASSERT_TRUE(kept.keep(made(bytes), "piece", kGoOn));
    ASSERT_TRUE(kept.isWhole("piece", kGoOn));
    writeFile(piece, damaged);
    EXPECT_FALSE(kept.isWhole("piece", kGoOn)) << damaged.size();
  }
  ASSERT_TRUE(kept.keep(made(bytes), "piece", kGoOn));
  EXPECT_TRUE(kept.isWhole("piece", kGoOn));
  for (const std::string& sum : {std::string(), std::string(20, '\0')}) {
    writeFile(kept.path("sum_piece"), sum);
    EXPECT_FALSE(kept.isWhole("piece", kGoOn));
  }
}

TEST_F(CheckpointTest, AStopEndsTheKeeping) {
  const Checkpoint kept = opened();
  int left = 1;
  EXPECT_FALSE(kept.keep(made(bytes), "piece", [&left] { return left-- > 0; }));
  EXPECT_FALSE(fs::exists(kept.path("piece")));
  EXPECT_TRUE(fs::exists(world.root().path() + "/data/made"));
}

TEST_F(CheckpointTest, BelongsToOneStateOfItsSource) {
  ASSERT_TRUE(opened().keep(made(bytes), "piece", kGoOn));
  const SourceStamp before = source;
  for (const auto& change :
       std::vector<std::function<void()>>{[this] { ++source.size; }, [this] { ++source.modified; },
                                          [this] { ++source.modifiedNs; }}) {
    source = before;
    ASSERT_TRUE(opened().keep(made(bytes), "piece", kGoOn));
    change();
    EXPECT_FALSE(opened().isWhole("piece", kGoOn));
  }
  ASSERT_TRUE(opened().keep(made(bytes), "piece", kGoOn));
  EXPECT_FALSE(Checkpoint::open(job, source, "cut 6 2").value().isWhole("piece", kGoOn));
  EXPECT_EQ(folders(), 1u);
}

TEST_F(CheckpointTest, WithADamagedOwnerItIsEmptied) {
  ASSERT_TRUE(opened().keep(made(bytes), "piece", kGoOn));
  const std::string owner = opened().path("owner");
  writeFile(owner, std::string(readFile(owner).size(), '\0'));
  EXPECT_FALSE(opened().isWhole("piece", kGoOn));
}

TEST_F(CheckpointTest, APartIsEmptiedWhenItsParametersChange) {
  const Checkpoint kept = opened();
  ASSERT_TRUE(kept.openPart("original/", "-crf\n20\n"));
  ASSERT_TRUE(kept.keep(made(bytes), "original/piece", kGoOn));
  ASSERT_TRUE(kept.keep(made(bytes), "cut", kGoOn));
  ASSERT_TRUE(kept.openPart("original/", "-crf\n20\n"));
  EXPECT_TRUE(kept.isWhole("original/piece", kGoOn));
  ASSERT_TRUE(kept.openPart("original/", "-crf\n23\n"));
  EXPECT_FALSE(fs::exists(kept.path("original/piece")));
  EXPECT_TRUE(kept.isWhole("cut", kGoOn));
}

TEST_F(CheckpointTest, WhatWasUnderWayGoesWithTheNextOpening) {
  const Checkpoint kept = opened();
  ASSERT_TRUE(kept.openPart("original/", "x"));
  writeFile(kept.newName("cut"), bytes);
  writeFile(kept.newName("original/piece"), bytes);
  const Checkpoint again = opened();
  ASSERT_TRUE(again.openPart("original/", "x"));
  EXPECT_LT(again.size(), 1000);
  EXPECT_FALSE(fs::exists(again.newName("cut")));
  EXPECT_FALSE(fs::exists(again.newName("original/piece")));
}

TEST_F(CheckpointTest, WhatIsRemovedLeavesNothing) {
  const Checkpoint kept = opened();
  const int64_t empty = kept.size();
  ASSERT_TRUE(kept.openPart("original/", "x"));
  ASSERT_TRUE(kept.keep(made(bytes), "original/piece", kGoOn));
  ASSERT_TRUE(kept.keep(made(bytes), "cut", kGoOn));
  EXPECT_GT(kept.size(), 2 * static_cast<int64_t>(bytes.size()));
  kept.remove("cut");
  kept.remove("original");
  EXPECT_EQ(kept.size(), empty);
  removeCheckpoints(8);
  EXPECT_EQ(folders(), 1u);
  removeCheckpoints(7);
  EXPECT_EQ(folders(), 0u);
}
