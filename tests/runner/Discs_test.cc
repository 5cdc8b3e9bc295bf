#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;

TEST(Discs, AnImageOfADvdBecomesOneVideoOfItsMainTitle) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "mounting is not possible here";
  RunnerWorld world;
  RecordingLog log;
  const TempDir disc;
  const std::string folder = disc / "VIDEO_TS/";
  fs::create_directories(folder);
  writeFile(folder + "VIDEO_TS.IFO", "DVDVIDEO-VMG");
  const std::vector<std::string> vob = {"-c:v", "mpeg2video", "-c:a", "ac3", "-f", "vob"};
  makeClip(folder + "VTS_01_1.VOB", 352, 288, 1, vob);
  makeClip(folder + "VTS_02_0.VOB", 352, 288, 4, vob);
  makeClip(folder + "VTS_02_1.VOB", 352, 288, 2, vob);
  makeClip(folder + "VTS_02_2.VOB", 352, 288, 2, vob);
  if (!run({"genisoimage", "-quiet", "-udf", "-o", world.media("disc.iso"), disc.path().string()}))
    GTEST_SKIP() << "no program to make disc images";
  const KxDBTaskParam row = world.run(world.media("disc.iso"), PROFILE_240P);
  ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  const auto result = probe(kxJobOutputs(row)[0].path);
  ASSERT_TRUE(result);
  EXPECT_NEAR(result->seconds, 4, 0.5);
  EXPECT_EQ(result->audioCodec, "aac");
  EXPECT_TRUE(world.leftovers().empty());
  EXPECT_TRUE(fs::is_empty(world.root().file("/run/xcode/iso")));
}
