#include <gtest/gtest.h>

#include "cli/ControlClient.h"
#include "cli/Text.h"

using namespace xcodectl;

TEST(ClientText, ProfileNamesBecomeTheirBits) {
  EXPECT_EQ(profileBits({"mobile240p"}), 1u);
  EXPECT_EQ(profileBits({"mobile240p", "video2audio"}), 0x41u);
  EXPECT_EQ(profileBits({"original", "ipad720p", "original"}), 0x28u);
  EXPECT_EQ(profileText(0x28), "ipad720p,original");
  EXPECT_EQ(profileText(0), "none");
}

TEST(ClientText, AWrongProfileNameIsRefusedWithTheRightOnes) {
  try {
    profileBits({"hd"});
    FAIL() << "a wrong name was taken";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), kExitUsage);
    EXPECT_NE(std::string(failure.what()).find("mobile1080p"), std::string::npos);
  }
}

TEST(ClientText, SizesAndDurationsReadAsPeopleWriteThem) {
  EXPECT_EQ(sizeText(999), "999 B");
  EXPECT_EQ(sizeText(1400000), "1.4 MB");
  EXPECT_EQ(durationText(65), "1:05");
  EXPECT_EQ(durationText(3723), "1:02:03");
  EXPECT_EQ(timeText(0), "-");
}

TEST(ClientText, BarsStayWithinTheirWidth) {
  EXPECT_EQ(barText(0, 10), "[..........]");
  EXPECT_EQ(barText(50, 10), "[#####.....]");
  EXPECT_EQ(barText(250, 10), "[##########]");
  EXPECT_EQ(barText(-3, 4), "[....]");
}

TEST(ClientText, ControlCharactersNeverReachTheTerminal) {
  EXPECT_EQ(printable("a\x1b[31mb\nc"), "a?[31mb?c");
  EXPECT_EQ(printable("Übersicht"), "Übersicht");
}

TEST(ClientText, TablesAlignNamesOfAnyScript) {
  EXPECT_EQ(tableText({{"Ü", "x"}, {"ab", "y"}}), "Ü   x\nab  y\n");
}
