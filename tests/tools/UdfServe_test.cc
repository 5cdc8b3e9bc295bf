#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/Discs.h"
#include "tests/tools/ToolsTest.h"

namespace fs = std::filesystem;
using kxtest::Image;
using kxtest::readFile;
using kxtest::runTool;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

// Serves images below a folder of its own.
class UdfServe : public testing::Test {
 protected:
  void SetUp() override { fs::create_directory(mount()); }
  void TearDown() override { runTool({"umount", "-l", mount()}); }

  std::string mount() const { return m_dir / "mount"; }
  static std::string program() { return KX_BUILD_DIR "/tools/udfserve"; }
  int serve(const std::string& image) const {
    return runTool({"/bin/sh", "-c", program() + " '" + image + "' '" + mount() + "' -o ro 2>&1"})
        .exitStatus;
  }
  // False where images cannot be made or mounted.
  bool serveImage() const {
    fs::create_directories(m_dir / "disc/Folder with blanks/below");
    writeFile(m_dir / "disc/Folder with blanks/Small Letters.txt", "text");
    writeFile(m_dir / "disc/\xc3\x9c.bin", std::string(300000, 'u'));
    writeFile(m_dir / "disc/empty", "");
    return kxtest::canMountImages() && makeImage(m_dir / "disc", image(), Image::Udf) &&
           serve(image()) == 0;
  }
  std::string image() const { return m_dir / "disc.iso"; }

  TempDir m_dir;
};

}  // namespace

TEST_F(UdfServe, ShowsTheFilesOfAnImageAsTheyAre) {
  if (!serveImage()) GTEST_SKIP() << "no images here";
  EXPECT_EQ(readFile(mount() + "/Folder with blanks/Small Letters.txt"), "text");
  EXPECT_TRUE(fs::is_directory(mount() + "/Folder with blanks/below"));
  EXPECT_EQ(readFile(mount() + "/\xc3\x9c.bin"), std::string(300000, 'u'));
  EXPECT_EQ(fs::file_size(mount() + "/empty"), 0U);
  EXPECT_EQ(readFile(mount() + "/empty"), "");
  size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::recursive_directory_iterator(mount())) ++entries;
  EXPECT_EQ(entries, 5U);
  EXPECT_FALSE(fs::exists(mount() + "/absent"));
}

TEST_F(UdfServe, NothingCanBeWritten) {
  if (!serveImage()) GTEST_SKIP() << "no images here";
  EXPECT_FALSE(std::ofstream(mount() + "/empty").is_open());
  EXPECT_FALSE(std::ofstream(mount() + "/new").is_open());
  std::error_code failed;
  EXPECT_FALSE(fs::remove(mount() + "/empty", failed));
  EXPECT_FALSE(fs::create_directory(mount() + "/folder", failed));
}

TEST_F(UdfServe, AFileThatTheImageHoldsInPartIsAnError) {
  fs::create_directory(m_dir / "disc");
  writeFile(m_dir / "disc/long.bin", std::string(4 << 20, 'u'));
  if (!kxtest::canMountImages() || !makeImage(m_dir / "disc", image(), Image::Udf))
    GTEST_SKIP() << "no images here";
  fs::resize_file(image(), fs::file_size(image()) - (2 << 20));
  ASSERT_EQ(serve(image()), 0);
  EXPECT_EQ(fs::file_size(mount() + "/long.bin"), size_t{4} << 20);
  EXPECT_FALSE(kxtest::run({"cat", mount() + "/long.bin"}));
}

TEST_F(UdfServe, RefusesWhatHoldsNoUdf) {
  writeFile(m_dir / "text.iso", "no image at all");
  EXPECT_EQ(serve(m_dir / "text.iso"), 2);
  EXPECT_EQ(serve(m_dir / "absent.iso"), 2);
  EXPECT_EQ(serve(m_dir.path().string()), 2);
  EXPECT_EQ(runTool({"/bin/sh", "-c", program() + " 2>&1"}).exitStatus, 2);
  fs::create_directory(m_dir / "disc");
  if (makeImage(m_dir / "disc", image(), Image::Plain)) {
    EXPECT_EQ(serve(image()), 2);
  }
  EXPECT_TRUE(kxtest::mountsBelow(m_dir.path().string()).empty());
}
