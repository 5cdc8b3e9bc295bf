#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {
mode_t modeOf(const std::string& path) {
  struct stat info = {};
  return lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}
}  // namespace

TEST(FileTree, CreatesAFolderWithItsParents) {
  const TempDir dir;
  EXPECT_EQ(mymkdir((dir / "a/b/c").c_str(), 0700), 0);
  EXPECT_TRUE(fs::is_directory(dir / "a/b/c"));
  EXPECT_EQ(modeOf(dir / "a/b/c"), 0700U);
  EXPECT_EQ(modeOf(dir / "a"), 0700U);
}

TEST(FileTree, CreatingAnExistingFolderIsSuccess) {
  const TempDir dir;
  EXPECT_EQ(mymkdir(dir.path().c_str(), 0700), 0);
  EXPECT_EQ(mymkdir((dir / "a/").c_str(), 0755), 0);
  EXPECT_EQ(mymkdir((dir / "a/").c_str(), 0755), 0);
}

TEST(FileTree, CreatingAFolderWhereAFileStandsFails) {
  const TempDir dir;
  writeFile(dir / "file", "x");
  EXPECT_NE(mymkdir((dir / "file").c_str(), 0755), 0);
  EXPECT_NE(mymkdir((dir / "file/below").c_str(), 0755), 0);
  EXPECT_NE(mymkdir("", 0755), 0);
  EXPECT_NE(mymkdir(nullptr, 0755), 0);
}

TEST(FileTree, RemovesAFileAndAWholeFolder) {
  const TempDir dir;
  fs::create_directories(dir / "tree/a/b");
  writeFile(dir / "tree/a/b/file", "x");
  writeFile(dir / "tree/top", "x");
  writeFile(dir / "single", "x");
  EXPECT_EQ(myremove((dir / "tree").c_str()), 0);
  EXPECT_EQ(myremove((dir / "single").c_str()), 0);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(FileTree, RemovingAnAbsentPathIsSuccess) {
  const TempDir dir;
  EXPECT_EQ(myremove((dir / "nothing").c_str()), 0);
  EXPECT_EQ(myremove((dir / "no/such/thing").c_str()), 0);
}

TEST(FileTree, RemovesLinksButNeverWhatTheyLeadTo) {
  const TempDir dir;
  const TempDir other;
  writeFile(other / "precious", "x");
  fs::create_directories(dir / "tree");
  fs::create_symlink(other.path(), dir / "tree/link");
  fs::create_symlink(other.path(), dir / "top");
  EXPECT_EQ(myremove((dir / "tree").c_str()), 0);
  EXPECT_EQ(myremove((dir / "top/").c_str()), 0);
  EXPECT_TRUE(fs::exists(other / "precious"));
  EXPECT_FALSE(fs::is_symlink(dir / "top"));
}

TEST(FileTree, RemovesTreesDeeperThanAProcessMayOpenFiles) {
  const TempDir dir;
  int current = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int depth = 0; depth < 1500; ++depth) {
    ASSERT_EQ(mkdirat(current, "deep", 0755), 0);
    const int next = openat(current, "deep", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(current);
    current = next;
  }
  close(current);
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few = {64, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  EXPECT_EQ(myremove((dir / "deep").c_str()), 0);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(FileTree, RefusesPathsThatNameNoEntry) {
  for (const char* path : {"", "/", "//", ".", "..", "/tmp/.", "/tmp/.."})
    EXPECT_NE(myremove(path), 0) << path;
  EXPECT_NE(myremove(nullptr), 0);
}

TEST(FileTree, LeavesAVolumeThatIsMountedInTheTree) {
  const TempDir dir;
  fs::create_directories(dir / "tree/volume");
  writeFile(dir / "tree/other", "x");
  if (mount("none", (dir / "tree/volume").c_str(), "tmpfs", 0, "") != 0)
    GTEST_SKIP() << "mounting is not allowed here";
  writeFile(dir / "tree/volume/precious", "x");
  EXPECT_NE(myremove((dir / "tree").c_str()), 0);
  EXPECT_TRUE(fs::exists(dir / "tree/volume/precious"));
  EXPECT_FALSE(fs::exists(dir / "tree/other"));
  EXPECT_EQ(umount((dir / "tree/volume").c_str()), 0);
  EXPECT_EQ(myremove((dir / "tree").c_str()), 0);
}
