#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

using kxtest::PrivateRoot;
using kxtest::RecordingLog;

namespace {

constexpr const char* kFfmpeg = "/usr/local/medialibrary/bin/ffmpeg";

// A stand-in that answers only the question for its encoders, and counts being asked.
void installEncoder(const PrivateRoot& root, const std::string& names) {
  root.script(kFfmpeg, "echo asked >>" + root.path() +
                           "/asked\n"
                           "[ \"$2\" = -encoders ] || exit 1\n"
                           "echo 'Encoders:'\necho ' A..... = Audio'\necho ' ------'\n"
                           "for name in " +
                           names +
                           "; do echo \" A....D $name   Some encoder (codec x)\"; done\n"
                           "echo ' V....D libx264   H.264'\n");
}

std::string codecName(int id) {
  char name[10] = "";
  return getFFmpegCodecName(id, name, sizeof name) == 0 ? name : "<failed>";
}

}  // namespace

TEST(MediaService, ListsTheInstalledEncoderWithItsAudioEncoders) {
  const PrivateRoot root;
  installEncoder(root, "aac libmp3lame");
  std::vector<MediaSvcVarInfo> services(3);
  ASSERT_EQ(MyUtil_getMediaSvcVarInfos(services), 0);
  ASSERT_EQ(services.size(), 1U);
  EXPECT_EQ(services[0].ffmpegPath, root.path() + kFfmpeg);
  EXPECT_EQ(services[0].agentPath, root.path() + "/usr/local/medialibrary/bin/transcode_agent");
  EXPECT_EQ(services[0].audioEncoders, (std::vector<std::string>{"aac", "libmp3lame"}));
}

TEST(MediaService, AsksTheEncoderOnceUntilItIsReplaced) {
  const PrivateRoot root;
  installEncoder(root, "libmp3lame");
  EXPECT_EQ(MyUtil_hasAACSupport(), 0);
  EXPECT_EQ(MyUtil_hasAACSupport(), 0);
  EXPECT_EQ(kxtest::readFile(root.path() + "/asked"), "asked\n");
  std::filesystem::remove(root.path() + kFfmpeg);
  installEncoder(root, "libmp3lame aac");
  EXPECT_NE(MyUtil_hasAACSupport(), 0);
}

TEST(MediaService, IsEmptyWithoutAnEncoder) {
  const PrivateRoot root;
  std::vector<MediaSvcVarInfo> services;
  EXPECT_NE(MyUtil_getMediaSvcVarInfos(services), 0);
  EXPECT_TRUE(services.empty());
  EXPECT_EQ(MyUtil_hasAACSupport(), 0);
}

TEST(MediaService, OffersNoAudioEncoderWhenTheProgramFails) {
  const RecordingLog log;
  const PrivateRoot root;
  root.script(kFfmpeg, "exit 1\n");
  std::vector<MediaSvcVarInfo> services;
  ASSERT_EQ(MyUtil_getMediaSvcVarInfos(services), 0);
  EXPECT_TRUE(services[0].audioEncoders.empty());
}

TEST(MediaService, KnowsWhatTheRealEncoderOffers) {
  const PrivateRoot root;
  root.script(kFfmpeg, "exec ffmpeg \"$@\"\n");
  EXPECT_NE(MyUtil_hasAACSupport(), 0);
}

TEST(MediaService, GivesThePathOfTheStaticEncoder) {
  const PrivateRoot root;
  char path[4096];
  EXPECT_EQ(MyUtil_getStaticFfmpegPath(path, sizeof path), 0);
  EXPECT_EQ(std::string(path), root.path() + kFfmpeg);
  EXPECT_NE(MyUtil_getStaticFfmpegPath(path, 5), 0);
  EXPECT_STREQ(path, "");
}

TEST(MediaService, FindsTheAddOnOnlyWhereItIsInstalled) {
  const PrivateRoot root;
  GstAgentPaths paths{"old"};
  EXPECT_NE(MyUtil_getGstTranscodeAgentPaths(paths), 0);
  EXPECT_EQ(paths.chrootPath, "");
  root.write("/etc/config/kxpkg.conf", "[Ampora]\nInstall_Path = " + root.path() + "/addon\n");
  EXPECT_NE(MyUtil_getGstTranscodeAgentPaths(paths), 0);
  std::filesystem::create_directory(root.path() + "/addon");
  EXPECT_EQ(MyUtil_getGstTranscodeAgentPaths(paths), 0);
  EXPECT_EQ(paths.chrootPath, root.path() + "/addon");
}

TEST(MediaService, NamesCodecsInTheNumberingOfTheLibrary) {
  EXPECT_EQ(codecName(28), "h264");
  EXPECT_EQ(codecName(174), "hevc");
  EXPECT_EQ(codecName(86017), "mp3");
  EXPECT_EQ(codecName(86018), "aac");
  EXPECT_EQ(codecName(65536), "pcm_s16le");  // the first of the audio numbers
}

TEST(MediaService, FailsForUnknownCodecsAndNamesThatDoNotFit) {
  EXPECT_EQ(codecName(0), "<failed>");
  EXPECT_EQ(codecName(-1), "<failed>");
  EXPECT_EQ(codecName(999999), "<failed>");
  EXPECT_EQ(codecName(2), "<failed>");  // "mpeg2video" has ten characters
  char tiny[4];
  EXPECT_NE(getFFmpegCodecName(28, tiny, sizeof tiny), 0);
}
