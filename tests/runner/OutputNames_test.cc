#include "resources/OutputNames.h"

#include <gtest/gtest.h>

#include "KxTranscodeUnit2.h"

using namespace runner;

namespace {

KxDBTaskParam jobOf(const std::string& source, uint64_t profiles, int rotation = 0) {
  KxDBTaskParam job;
  job.src = source;
  job.jobFlag = profiles;
  job.rotation = rotation;
  return job;
}

}  // namespace

TEST(OutputNames, ResultsAreListedInTheOrderOfTheProfileTable) {
  const auto outputs = kxJobOutputs(jobOf("/m/clip.mov", 0x7f));
  ASSERT_EQ(outputs.size(), 7u);
  EXPECT_EQ(outputs[0].profile, "mobile240p");
  EXPECT_EQ(outputs[0].path, "/m/@Transcode/clip.mov.mobile240p.mp4");
  EXPECT_EQ(outputs[0].link, "/m/.@__thumb/transcode/clip.mov.mobile240p");
  EXPECT_EQ(outputs[3].path, "/m/@Transcode/clip.mov.ipad720p.mp4");
  EXPECT_EQ(outputs[5].path, "/m/@Transcode/clip.mov.original.mp4");
  EXPECT_EQ(outputs[6].profile, "video2audio");
  EXPECT_EQ(outputs[6].path, "/m/Video2audio/clip.mp3");
  EXPECT_EQ(outputs[6].link, "");
}

TEST(OutputNames, OnlySelectedProfilesHaveResults) {
  EXPECT_TRUE(kxJobOutputs(jobOf("/m/clip.mov", 0)).empty());
  EXPECT_TRUE(kxJobOutputs(jobOf("/m/clip.mov", 1 << 7)).empty());
  const auto outputs = kxJobOutputs(jobOf("/m/clip.mov", 1 << 4));
  ASSERT_EQ(outputs.size(), 1u);
  EXPECT_EQ(outputs[0].profile, "mobile1080p");
}

TEST(OutputNames, ARotationIsPartOfTheVisibleNameOnly) {
  const auto outputs = kxJobOutputs(jobOf("/m/clip.mov", 1, 90));
  EXPECT_EQ(outputs[0].path, "/m/@Transcode/clip.mov.mobile240p.90.mp4");
  EXPECT_EQ(outputs[0].link, "/m/.@__thumb/transcode/clip.mov.mobile240p");
  EXPECT_EQ(kxJobOutputs(jobOf("/m/clip.mov", 1, 270))[0].path,
            "/m/@Transcode/clip.mov.mobile240p.270.mp4");
  EXPECT_EQ(kxJobOutputs(jobOf("/m/clip.mov", 1, 45))[0].path,
            "/m/@Transcode/clip.mov.mobile240p.mp4");
}

TEST(OutputNames, APdfGivesOneFolderOfPages) {
  auto job = jobOf("/m/Paper.PDF", 1);
  ASSERT_EQ(kxJobOutputs(job).size(), 1u);
  EXPECT_EQ(kxJobOutputs(job)[0].path, "/m/Paper.PDF.album/");
  job.dst = "/albums/paper/";
  EXPECT_EQ(kxJobOutputs(job)[0].path, "/albums/paper.album/");
}

TEST(OutputNames, ADiscFolderMayEndInSlashes) {
  EXPECT_EQ(splitSource("/m/Movie//").folder, "/m/");
  EXPECT_EQ(splitSource("/m/Movie//").name, "Movie");
  EXPECT_EQ(splitSource("/clip.mp4").folder, "/");
}

TEST(OutputNames, TheExtensionIsWhatFollowsTheLastDot) {
  EXPECT_EQ(withoutExtension("a.b.mp4"), "a.b");
  EXPECT_EQ(withoutExtension("clip"), "clip");
  EXPECT_EQ(withoutExtension(".hidden"), ".hidden");
}
