#include "VelmarPlatform.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>

#include "tests/support/TestSupport.h"

namespace {

using kxtest::PrivateRoot;
using kxtest::RecordingLog;

TEST(Platform, IsRecognisedByTheBeginningOfItsName) {
  const std::tuple<const char*, int32_t, int32_t> families[] = {
      {"MARVELL", 7, -1},
      {"MARVELL_370", 7, -1},
      {"ARM_RTK", 15, 1},
      {"ARM_RTK1296", 15, 1},
      {"ARM_RK", 16, 1},
      {"ARM_RK3328", 16, 1},
      {"ARM_AL", 17, -1},
      {"arm_rk", 17, -1},
      {"PLATFORM_X86_EVANSPORT", 17, -1},
      {"X8", 17, -1},
      {"X86_BAYTRAIL", 1, -1},
      {"X86_SANDYBRIDGE", 2, -1},
      {"X86_HASWELL", 3, -1},
      {"X86_STEPPEEAGLE", 5, -1},
      {"X86_GRANTLEY", 8, -1},
      {"X86_BRASWELL", 9, -1},
      {"X86_SKYLAKE", 10, -1},
      {"X86_MERLINFALCON", 11, -1},
      {"X86_PRAIRIEFALCON", 12, -1},
      {"X86_APOLLOLAKE", 13, -1},
      {"X86_APOLLOLAKE_2", 13, -1},
      {"X86_SUMMITRIDGE", 14, -1},
      {"X86_GENERIC", 6, -1},
      {"X86", 6, -1},
  };
  for (const auto& [name, type, flag] : families) {
    PrivateRoot root;
    root.write("/etc/platform.conf", "Platform = " + std::string(name) + "\n");
    const KxPlatform platform;
    EXPECT_EQ(platform.getPlatformName(), name);
    EXPECT_EQ(platform.getPlatformType(), type) << name;
    EXPECT_EQ(platform.getArmFlag(), flag) << name;
  }
}

TEST(Platform, NameHasNoNewlineAtItsEnd) {
  PrivateRoot root;
  root.write("/etc/platform.conf", "Platform=ARM_RTK\n");
  EXPECT_EQ(KxPlatform().getPlatformName(), "ARM_RTK");
}

void expectUnknown() {
  RecordingLog log;
  const KxPlatform platform;
  EXPECT_EQ(platform.getPlatformName(), "");
  EXPECT_EQ(platform.getPlatformType(), 0);
  EXPECT_EQ(platform.getArmFlag(), -1);
  EXPECT_TRUE(log.has(2, "VelmarPlatform", "get platform fail"));
}

TEST(Platform, IsUnknownWithoutTheFileOrTheKey) {
  PrivateRoot root;
  expectUnknown();
  root.write("/etc/platform.conf", "Model=X\n[Section]\nPlatform=ARM_RK\n");
  expectUnknown();
}

TEST(Platform, IsReadOnlyOnce) {
  PrivateRoot root;
  root.write("/etc/platform.conf", "Platform=ARM_RK\n");
  const KxPlatform platform;
  root.write("/etc/platform.conf", "Platform=MARVELL\n");
  EXPECT_EQ(platform.getPlatformType(), 16);
}

}  // namespace
