#include <gtest/gtest.h>

#include <filesystem>

#include "tests/runner/RunnerWorld.h"

using namespace kxtest;

// In a program of its own: the manager learns the kind of cgroups only once.
TEST(UnifiedCgroups, EveryEncoderIsPutUnderTheLimitsByItsPid) {
  RunnerWorld world(RunnerWorld::Cgroups::Unified);
  RecordingLog log;
  makeClip(world.media("film.mp4"), 160, 120, 30);
  world.setEncoder("exec ffmpeg -re \"$@\"\n");
  const KxDBTaskParam job = world.addJob(world.media("film.mp4"), PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(world.waitForChild());
  const std::string pid = std::to_string(world.unit()->getPid());
  EXPECT_TRUE(waitUntil([&] {
    return readFile(world.cgroupFile("kxrunner/cgroup.procs")).find(pid) != std::string::npos;
  }));
  world.stop(job.id);
  EXPECT_TRUE(world.waitForUnits());
}
