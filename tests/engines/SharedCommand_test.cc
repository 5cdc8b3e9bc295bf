#include "engines/SharedCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using engines::sharedCommand;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(SharedCommand, ReadsTheSourceOnceAndKeepsTheOptionsOfEveryResult) {
  EXPECT_THAT(sharedCommand({{"/ffmpeg", "-y", "-noautorotate", "-i", "/in", "-vf", "a", "/out1"},
                             {"/ffmpeg", "-y", "-noautorotate", "-i", "/in", "-an", "/out2"},
                             {"/ffmpeg", "-y", "-noautorotate", "-i", "/in", "/out3"}}),
              ElementsAre("/ffmpeg", "-y", "-noautorotate", "-i", "/in", "-vf", "a", "/out1", "-an",
                          "/out2", "/out3"));
}

TEST(SharedCommand, ASingleCommandStaysAsItIs) {
  EXPECT_THAT(sharedCommand({{"/ffmpeg", "-i", "/in", "/out"}}),
              ElementsAre("/ffmpeg", "-i", "/in", "/out"));
}

TEST(SharedCommand, CommandsThatReadDifferentlyAreNotJoined) {
  const std::vector<std::string> command = {"/ffmpeg", "-y", "-i", "/in", "/out"};
  EXPECT_THAT(sharedCommand({command, {"/ffmpeg", "-y", "-i", "/other", "/out"}}), IsEmpty());
  EXPECT_THAT(sharedCommand({command, {"/ffmpeg", "-y", "-ss", "5", "-i", "/in", "/out"}}),
              IsEmpty());
  EXPECT_THAT(sharedCommand({command, {"/other", "-y", "-i", "/in", "/out"}}), IsEmpty());
  EXPECT_THAT(sharedCommand({command, {"/ffmpeg", "-y", "/out"}}), IsEmpty());
  EXPECT_THAT(sharedCommand({{"/ffmpeg", "-y", "-i"}}), IsEmpty());
  EXPECT_THAT(sharedCommand({}), IsEmpty());
}
