#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "KxHostPlatform.h"
#include "tests/tools/ToolsTest.h"

namespace fs = std::filesystem;
using kxtest::StagedRoot;
using kxtest::TempDir;

namespace {

std::string key(const StagedRoot& root, const char* section, const char* name) {
  char value[4096];
  MyUtil_GetKeyStr(section, name, "<missing>", value, sizeof value,
                   root.file("/etc/config/medialibrary.conf").c_str());
  return value;
}

}  // namespace

TEST(StageRoot, LaysOutTheShippedConfiguration) {
  const StagedRoot root;
  ASSERT_TRUE(root.staged());
  EXPECT_EQ(key(root, "TRANSCODESVR", "CPU_LIMIT"), "50");
  EXPECT_EQ(key(root, "TRANSCODESVR", "MEM_LIMIT"), "-1");
  EXPECT_EQ(key(root, "TRANSCODESVR", "SUBTITLE"), "0");
  EXPECT_EQ(key(root, "TRANSCODESVR", "ENABLE_EXTRA_TRANSOCDE"), "0");
  EXPECT_EQ(key(root, "TRANSCODESVR", "SEGMENT"), "1");
  EXPECT_EQ(key(root, "TRANSCODESVR", "FANOUT"), "1");
  EXPECT_EQ(key(root, "OPTIONS", "MlsDataDir"), root.path() + "/var/lib/xcode/");
  char platform[64];
  EXPECT_NE(MyUtil_GetKeyStr(nullptr, "Platform", "", platform, sizeof platform,
                             root.file("/etc/platform.conf").c_str()),
            0);
#if defined(__x86_64__)
  EXPECT_STREQ(platform, "X86_GENERIC");
#endif
}

TEST(StageRoot, PutsThePrograms) {
  const StagedRoot root;
  for (const std::string& program :
       {root.program("ffmpeg"), root.program("xlogparse.sh"), root.program("catalogcmd"),
        root.program("subpull"), root.program("transcode_agent"), root.program("udfserve"),
        root.file("/usr/local/sbin/gs"), root.file("/sbin/accelctl")})
    EXPECT_EQ(access(program.c_str(), X_OK), 0) << program;
  EXPECT_TRUE(fs::is_directory(root.file("/run/xcode")));
}

TEST(StageRoot, KeepsConfigurationThatIsThere) {
  const StagedRoot root;
  const std::string file = root.file("/etc/config/medialibrary.conf");
  kxtest::writeFile(file, "[TRANSCODESVR]\nCPU_LIMIT=7\n");
  const std::string script = std::string(KX_SOURCE_DIR) + "/scripts/stage-root";
  EXPECT_TRUE(kxtest::run({script, "--cpu-limit", "90", root.path(), KX_BUILD_DIR}));
  EXPECT_EQ(key(root, "TRANSCODESVR", "CPU_LIMIT"), "7");
  fs::remove(file);
  EXPECT_TRUE(kxtest::run({script, "--cpu-limit", "90", root.path(), KX_BUILD_DIR}));
  EXPECT_EQ(key(root, "TRANSCODESVR", "CPU_LIMIT"), "90");
}

TEST(StageRoot, RefusesWrongWordsAndNames) {
  const TempDir dir;
  const std::string script = std::string(KX_SOURCE_DIR) + "/scripts/stage-root";
  EXPECT_FALSE(kxtest::run({script}));
  EXPECT_FALSE(kxtest::run({script, "--cpu-limit", "x", dir / "r", KX_BUILD_DIR}));
  EXPECT_FALSE(kxtest::run({script, dir / "r", dir / "nobuild"}));
  EXPECT_FALSE(kxtest::run({script, dir / "MyPublic", KX_BUILD_DIR}));
}
