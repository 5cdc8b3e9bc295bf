#include "resources/SubtitleSearch.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TestSupport.h"

using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;

TEST(SubtitleSearch, FindsTheFileThatIsNamedAfterTheVideo) {
  TempDir dir;
  const std::string folder = dir / "";
  writeFile(dir / "film.part.srt", "x");
  writeFile(dir / "other.srt", "x");
  writeFile(dir / "film.part.txt", "x");
  RecordingLog log;
  EXPECT_EQ(findVideoSubtitle(folder, "film.part.mkv"), dir / "film.part.srt");
  EXPECT_TRUE(log.has("compare target=> film.part.srt\n"));
  EXPECT_TRUE(log.has("checking film.part.srt with film.part.srt ...\n"));
  EXPECT_TRUE(log.has("** find match subtitle -> " + folder + "film.part.srt\n"));
  EXPECT_FALSE(log.hasPart("checking film.part.txt"));
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.source, "KxTranscodeUnit2");
    EXPECT_EQ(line.func, "findVideoSubtitle");
    EXPECT_EQ(line.level, 5);
  }
}

TEST(SubtitleSearch, FindsNothingWhereNoNameFits) {
  TempDir dir;
  writeFile(dir / "film2.srt", "x");
  writeFile(dir / "film.SRT", "x");
  RecordingLog log;
  EXPECT_EQ(findVideoSubtitle(dir / "", "film.mkv"), "");
  EXPECT_TRUE(log.has("checking film2.srt with film.srt ...\n"));
  EXPECT_EQ(findVideoSubtitle(dir / "absent/", "film.mkv"), "");
}

TEST(SubtitleSearch, AFolderOrALinkIsNoSubtitle) {
  TempDir dir;
  std::filesystem::create_directory(dir / "a.srt");
  std::filesystem::create_symlink("/etc/passwd", dir / "b.srt");
  EXPECT_EQ(findVideoSubtitle(dir / "", "a.mp4"), "");
  EXPECT_EQ(findVideoSubtitle(dir / "", "b.mp4"), "");
}
