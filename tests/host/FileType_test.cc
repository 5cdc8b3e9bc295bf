#include <gtest/gtest.h>

#include <string>

#include "KxHostPlatform.h"

namespace {

int classOf(const char* name) {
  char extension[6];
  return MyIDB_GetFilenameType(name, extension, 2, sizeof extension);
}

std::string extensionOf(const char* name, int size) {
  char extension[16] = "unchanged";
  MyIDB_GetFilenameType(name, extension, 2, size);
  return extension;
}

}  // namespace

TEST(FileType, TellsPicturesVideosAndMusicApart) {
  for (const char* name : {"a.jpg", "a.PNG", "a.heic"}) EXPECT_EQ(classOf(name), 1) << name;
  for (const char* name : {"a.mp4", "a.MOV", "a.mkv", "a.webm", "a.ts", "a.m2ts", "a.3gp", "a.wmv",
                           "a.mpg", "a.vob", "a.flv", "a.avi", "a.rm", "a.iso", "VIDEO_TS.IFO"})
    EXPECT_EQ(classOf(name), 2) << name;
  for (const char* name : {"a.mp3", "a.flac", "a.M4A", "a.ogg", "a.wma", "a.mka", "a.opus"})
    EXPECT_EQ(classOf(name), 3) << name;
  for (const char* name : {"a.pdf", "a.txt", "a.mp4.part", "noextension", "", "a.", "/x.mp4/name"})
    EXPECT_EQ(classOf(name), 0) << name;
}

TEST(FileType, TakesNamesAndPaths) {
  EXPECT_EQ(classOf("/share/a.b/Mein Film.Mp4"), 2);
  EXPECT_EQ(classOf("/share/a.mp4/plain"), 0);
}

TEST(FileType, AHiddenNameIsNoExtension) {
  EXPECT_EQ(classOf("/share/.mp4"), 0);
  EXPECT_EQ(classOf(".hidden.mp4"), 2);
}

TEST(FileType, CutsTheExtensionToTheBuffer) {
  EXPECT_EQ(extensionOf("a.jpeg", 16), "jpeg");
  EXPECT_EQ(extensionOf("a.jpeg", 3), "jp");
  EXPECT_EQ(extensionOf("a.jpeg", 1), "");
  EXPECT_EQ(extensionOf("a.jpeg", 0), "unchanged");
  EXPECT_EQ(extensionOf("none", 16), "");
  EXPECT_EQ(MyIDB_GetFilenameType("a.mp4", nullptr, 2, 6), 2);
  EXPECT_EQ(MyIDB_GetFilenameType(nullptr, nullptr, 2, 0), 0);
}
