#include "host/IsoMount.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "KxHostPlatform.h"
#include "tests/support/Discs.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::PrivateRoot;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

// Disc images with the one file system that FUSE knows by itself, and with the other one.
class IsoMount : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    m_root.install("udfserve");
    fs::create_directories(m_dir / "disc/VIDEO_TS");
    writeFile(m_dir / "disc/VIDEO_TS/VIDEO_TS.IFO", "DVDVIDEO-VMG");
    const auto made =
        kxtest::run({"genisoimage", "-quiet", GetParam(), "-o", iso(), m_dir / "disc"});
    if (!made) GTEST_SKIP() << "no program to make disc images";
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "mounting is not possible here";
  }
  std::string iso() const { return m_dir / "disc.iso"; }
  bool nothingMounted() const {
    const std::string folder = kxhost::isoMountFolder();
    return !fs::exists(folder) || fs::is_empty(folder);
  }

  RecordingLog m_log;
  PrivateRoot m_root;
  TempDir m_dir;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Names, IsoMount, testing::Values("-R", "-udf"));

TEST_P(IsoMount, MountsAnImageAndReleasesIt) {
  char mountPoint[1024];
  ASSERT_EQ(mountIso(iso().c_str(), mountPoint, sizeof mountPoint), 0);
  char folder[1024];
  EXPECT_EQ(parseMountedFolder_v2(mountPoint, folder, sizeof folder), 0);
  EXPECT_EQ(kxtest::readFile(std::string(folder) + "VIDEO_TS/VIDEO_TS.IFO"), "DVDVIDEO-VMG");
  EXPECT_EQ(umountIso(mountPoint), 0);
  EXPECT_FALSE(fs::exists(mountPoint));
  EXPECT_TRUE(nothingMounted());
}

TEST_P(IsoMount, LeavesNothingBehindWhenItFails) {
  char mountPoint[1024];
  writeFile(m_dir / "text.iso", "no image at all");
  EXPECT_NE(mountIso((m_dir / "text.iso").c_str(), mountPoint, sizeof mountPoint), 0);
  EXPECT_NE(mountIso((m_dir / "absent.iso").c_str(), mountPoint, sizeof mountPoint), 0);
  EXPECT_NE(mountIso((m_dir / "disc").c_str(), mountPoint, sizeof mountPoint), 0);
  EXPECT_NE(mountIso(iso().c_str(), mountPoint, 5), 0);
  EXPECT_NE(umountIso((m_dir / "absent").c_str()), 0);
  EXPECT_TRUE(nothingMounted());
}

TEST_P(IsoMount, MountsInsideTheAddOn) {
  char path[1024];
  const std::string chrootPath = m_dir / "addon";
  fs::create_directory(chrootPath);
  ASSERT_EQ(chrootMountIso(chrootPath.c_str(), iso().c_str(), path, sizeof path), 0);
  EXPECT_EQ(path[0], '/');
  char folder[1024];
  const std::string onHost = chrootPath + path;
  EXPECT_EQ(parseMountedFolder_v2(onHost.c_str(), folder, sizeof folder), 0);
  EXPECT_EQ(kxtest::readFile(std::string(folder) + "VIDEO_TS/VIDEO_TS.IFO"), "DVDVIDEO-VMG");
  EXPECT_EQ(chrootUmountIso(chrootPath.c_str(), path), 0);
  EXPECT_TRUE(fs::is_empty(chrootPath + "/mnt/xcode-iso"));
}

TEST_P(IsoMount, TheAddOnMayBeNamedThroughALink) {
  const std::string chrootPath = m_dir / "addon";
  fs::create_directory(m_dir / "where it really is");
  fs::create_directory_symlink(m_dir / "where it really is", chrootPath);
  for (const std::string& name : {chrootPath, chrootPath + "/"}) {
    char path[1024];
    ASSERT_EQ(chrootMountIso(name.c_str(), iso().c_str(), path, sizeof path), 0);
    EXPECT_TRUE(std::string(path).starts_with("/mnt/xcode-iso/")) << path;
    EXPECT_TRUE(fs::exists(chrootPath + path + "/VIDEO_TS/VIDEO_TS.IFO"));
    EXPECT_EQ(chrootUmountIso(name.c_str(), path), 0);
    EXPECT_TRUE(fs::is_empty(chrootPath + "/mnt/xcode-iso"));
    EXPECT_THAT(kxtest::mountsBelow(m_dir.path().string()), testing::IsEmpty());
  }
}

TEST_P(IsoMount, ReleasesWhatAKilledProcessLeftMounted) {
  char own[1024];
  ASSERT_EQ(mountIso(iso().c_str(), own, sizeof own), 0);
  const std::string addOn = m_dir / "addon";
  fs::create_directory(addOn);
  m_root.write("/etc/config/kxpkg.conf", "[Ampora]\nInstall_Path=" + addOn + "\n");
  const pid_t child = fork();
  if (child == 0) {
    char path[1024];
    _exit(mountIso(iso().c_str(), path, sizeof path) +
          chrootMountIso(addOn.c_str(), iso().c_str(), path, sizeof path));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(kxhost::releaseStaleIsoMounts(), 2);
  EXPECT_TRUE(fs::is_empty(addOn + "/mnt/xcode-iso"));
  EXPECT_FALSE(fs::is_empty(own));
  EXPECT_EQ(umountIso(own), 0);
  EXPECT_TRUE(nothingMounted());
}

TEST(RealImages, MountOrFailAndLeaveNothing) {
  const auto media = kxtest::mediaDir();
  if (!media) GTEST_SKIP() << "no real media";
  const RecordingLog log;
  const PrivateRoot root;
  for (const auto& entry : fs::directory_iterator(*media + "/iso")) {
    char mountPoint[1024];
    if (mountIso(entry.path().c_str(), mountPoint, sizeof mountPoint) != 0) continue;
    EXPECT_TRUE(fs::is_directory(mountPoint)) << entry.path();
    EXPECT_EQ(umountIso(mountPoint), 0) << entry.path();
  }
  EXPECT_TRUE(fs::is_empty(kxhost::isoMountFolder()));
}

TEST(DiscFolder, IsFoundAtTheTopOrOneFolderBelow) {
  const TempDir dir;
  char folder[1024];
  fs::create_directories(dir / "top/BDMV");
  writeFile(dir / "top/BDMV/index.bdmv", "x");
  EXPECT_EQ(parseMountedFolder_v2((dir / "top").c_str(), folder, sizeof folder), 0);
  EXPECT_EQ(std::string(folder), dir / "top/");
  fs::create_directories(dir / "nested/My Film/VIDEO_TS");
  writeFile(dir / "nested/My Film/VIDEO_TS/VIDEO_TS.IFO", "x");
  EXPECT_EQ(parseMountedFolder_v2((dir / "nested/").c_str(), folder, sizeof folder), 0);
  EXPECT_EQ(std::string(folder), dir / "nested/My Film/");
}

TEST(DiscFolder, IsTheMountPointWithAFailureWhenThereIsNoDisc) {
  const TempDir dir;
  char folder[1024] = "";
  EXPECT_NE(parseMountedFolder_v2(dir.path().c_str(), folder, sizeof folder), 0);
  EXPECT_EQ(std::string(folder), dir.path().string() + "/");
  EXPECT_NE(parseMountedFolder_v2(dir.path().c_str(), folder, 3), 0);
  EXPECT_NE(parseMountedFolder_v2("", folder, sizeof folder), 0);
}

TEST(DiscFolder, IsFoundInAnyLetterCase) {
  const TempDir dir;
  char folder[1024];
  fs::create_directories(dir / "mount/film/video_ts");
  writeFile(dir / "mount/film/video_ts/video_ts.ifo", "x");
  EXPECT_EQ(parseMountedFolder_v2((dir / "mount").c_str(), folder, sizeof folder), 0);
  EXPECT_EQ(std::string(folder), dir / "mount/film/");
}

TEST(StaleMounts, AreToldByTheirProcessAndItsStart) {
  const PrivateRoot root;
  const RecordingLog log;
  const std::string folder = kxhost::isoMountFolder() + "/";
  const std::string self = std::to_string(getpid());
  // The number of this process, but its start is another one's.
  const std::vector<std::string> names = {self + "_1_abcdef", "999999999_1_abcdef",
                                          self + "_abcdef", "notes"};
  for (const std::string& name : names) fs::create_directories(folder + name);
  EXPECT_EQ(kxhost::releaseStaleIsoMounts(), 2);
  EXPECT_FALSE(fs::exists(folder + self + "_1_abcdef"));
  EXPECT_FALSE(fs::exists(folder + "999999999_1_abcdef"));
  EXPECT_TRUE(fs::exists(folder + self + "_abcdef"));
  EXPECT_TRUE(fs::exists(folder + "notes"));
}
