#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

using kxtest::TempDir;

namespace {
bool lists(const NasVol& volumes, const std::string& folder) {
  const auto all = volumes.getIndexableVolDirs();
  return std::find(all.begin(), all.end(), folder) != all.end();
}
}  // namespace

TEST(Volumes, ListsMountedFoldersButNotTheSystemsOwn) {
  NasVol volumes;
  ASSERT_EQ(volumes.genIndexableVolDir(), 0);
  EXPECT_TRUE(lists(volumes, "/"));
  for (const char* folder : {"/proc", "/sys", "/dev", "/dev/pts"})
    EXPECT_FALSE(lists(volumes, folder)) << folder;
}

TEST(Volumes, NoticesThatAVolumeComesAndGoes) {
  const TempDir dir;
  const std::string folder = dir / "vol\tume 1";
  std::filesystem::create_directory(folder);
  NasVol volumes;
  ASSERT_EQ(volumes.genIndexableVolDir(), 0);
  EXPECT_FALSE(lists(volumes, folder));
  if (mount("none", folder.c_str(), "tmpfs", 0, "") != 0)
    GTEST_SKIP() << "mounting is not allowed here";
  EXPECT_EQ(volumes.genIndexableVolDir(), 0);
  EXPECT_TRUE(lists(volumes, folder));
  ASSERT_EQ(umount(folder.c_str()), 0);
  EXPECT_EQ(volumes.genIndexableVolDir(), 0);
  EXPECT_FALSE(lists(volumes, folder));
}

TEST(Volumes, TellsWhatMayBeIndexed) {
  NasVol volumes;
  EXPECT_FALSE(volumes.isIndexable("/home/user"));
  ASSERT_EQ(volumes.genIndexableVolDir(), 0);
  EXPECT_TRUE(volumes.isIndexable("/home/user"));
  EXPECT_TRUE(volumes.isIndexable("/procession"));
  for (const char* path : {"/", "//", "", "relative", "/proc", "/proc/1", "/sys/x", "/dev/shm"})
    EXPECT_FALSE(volumes.isIndexable(path)) << path;
}

TEST(Volumes, AnInstanceTakesItselfBack) {
  {
    NasVol volumes;
    NasVol::setInstance(&volumes);
    EXPECT_EQ(NasVol::getInstance(), &volumes);
  }
  EXPECT_EQ(NasVol::getInstance(), nullptr);
}
