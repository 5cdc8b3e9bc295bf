#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KxTransFileConfig.h"
#include "tests/support/TestSupport.h"
#include "watch/FolderLookup.h"

using testing::ElementsAre;

TEST(FolderSetting, KeepsWhatItWasGiven) {
  KxTransFileSetting setting;
  EXPECT_TRUE(setting.isEmpty());
  setting.set("/share/a", "4", "fast");
  EXPECT_FALSE(setting.isEmpty());
  EXPECT_EQ(setting.getFilePath(), "/share/a");
  EXPECT_EQ(setting.getTarget(), "4");
  EXPECT_EQ(setting.getOptions(), "fast");
  setting.set("/share/b", "8");
  EXPECT_EQ(setting.getFilePath(), "/share/b");
  EXPECT_EQ(setting.getOptions(), "fast");
  setting.setFilePath("/share/c");
  setting.setTarget("16");
  setting.setOptions("");
  EXPECT_EQ(setting.outputTransFileSetting(), "/share/c:16\n");
  setting.clear();
  EXPECT_TRUE(setting.isEmpty());
  EXPECT_EQ(setting.getTarget(), "");
}

TEST(FolderSetting, TheTargetIsReadAsADecimalNumber) {
  const auto number = [](const char* text) {
    return KxTransFileSetting("/a", text).getTargetAsInt64();
  };
  EXPECT_EQ(number("4"), 4);
  EXPECT_EQ(number("-1"), -1);
  EXPECT_EQ(number("12 and more"), 12);
  EXPECT_EQ(number("mobile"), 0);
  EXPECT_EQ(number(""), 0);
  EXPECT_EQ(number("4294967296"), 4294967296LL);
}

TEST(FolderSetting, ALineOfTheListIsNeverLongerThanItsReadersBuffer) {
  const auto line = [](size_t pathLength) {
    return KxTransFileSetting(std::string(pathLength, 'p'), "4").outputTransFileSetting();
  };
  EXPECT_EQ(line(4092).size(), 4095U);
  EXPECT_EQ(line(4092).substr(4091), "p:4\n");
  EXPECT_EQ(line(4093).size(), 4095U);
  EXPECT_EQ(line(4093).substr(4091), "pp:\n");
  EXPECT_EQ(line(9000), std::string(4094, 'p') + "\n");
}

TEST(FolderSetting, IsDumpedFieldByField) {
  const kxtest::RecordingLog log;
  KxTransFileSetting("/share/a", "4", "fast").dump();
  EXPECT_THAT(log.texts(), ElementsAre("====== KXTRANSFILESETTING ======\n", "#path: /share/a\n",
                                       "#target: 4\n", "#options: fast\n", "====== END ======\n"));
  EXPECT_EQ(log.lines().at(0).func, "dump");
  EXPECT_EQ(log.lines().at(0).source, "KxTransFileConfig");
}

TEST(FolderLookup, CollapsesSlashesAndAddsTheLast) {
  EXPECT_EQ(FolderLookup::normalised("/a//b///c"), "/a/b/c/");
  EXPECT_EQ(FolderLookup::normalised("//"), "/");
  EXPECT_EQ(FolderLookup::normalised(""), "/");
  EXPECT_TRUE(FolderLookup::isWithin("/a/b/", "/a/"));
  EXPECT_FALSE(FolderLookup::isWithin("/ab/", "/a/"));
}

TEST(FolderLookup, ClimbsFromAPathToTheTop) {
  std::vector<std::string> seen;
  const auto note = [&](const std::string& folder) {
    seen.push_back(folder);
    return false;
  };
  EXPECT_FALSE(FolderLookup::climb("/a/b/", note));
  EXPECT_THAT(seen, ElementsAre("/a/b/", "/a/", "/"));
}
