#include <gtest/gtest.h>

#include "tests/runner/RunnerWorld.h"

using namespace kxtest;

TEST(JobRunner, AVideoIsTranscodedAndPutInPlace) {
  RunnerWorld world;
  makeClip(world.media("clip.mov"), 640, 360, 1);
  RecordingLog log;
  const KxDBTaskParam row = world.run(world.media("clip.mov"), PROFILE_240P);
  EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  const auto result = probe(world.media("@Transcode/clip.mov.mobile240p.mp4"));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->height, 240);
  EXPECT_EQ(result->width, 426);
  EXPECT_TRUE(world.leftovers().empty());
}
