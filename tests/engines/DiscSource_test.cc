#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "engines/DiscMount.h"
#include "tests/engines/EngineFixture.h"
#include "tests/support/Discs.h"

namespace fs = std::filesystem;
using kxtest::makeClip;
using kxtest::RecordingLog;
using kxtest::writeFile;

class DiscSource : public kxtest::EngineTest {
 protected:
  DiscSource() { root.install("udfserve"); }

  // A DVD folder whose main title has two parts of the given length.
  std::string makeDvd(const std::string& name) const {
    std::string folder = media(name);
    fs::create_directories(folder + "/VIDEO_TS");
    writeFile(folder + "/VIDEO_TS/VIDEO_TS.IFO", "index");
    for (const char* part : {"1", "3"}) {
      makeClip(folder + "/VIDEO_TS/VTS_02_" + part + ".VOB", 64, 48, 0.4,
               {"-c:v", "mpeg2video", "-c:a", "mp2", "-f", "vob"});
    }
    writeFile(folder + "/VIDEO_TS/VTS_01_1.VOB", "short");
    return folder;
  }

  std::string makeBluRay(const std::string& name) const {
    std::string folder = media(name);
    fs::create_directories(folder + "/BDMV/STREAM");
    writeFile(folder + "/BDMV/index.bdmv", "index");
    makeClip(folder + "/BDMV/STREAM/00002.m2ts", 64, 48, 0.4, {"-f", "mpegts"});
    return folder;
  }

  std::string makeImage(const std::string& folder) const {
    const std::string image = folder + ".iso";
    return kxtest::run({"genisoimage", "-quiet", "-udf", "-o", image, folder}) ? image : "";
  }

  bool canMount(const std::string& image) const {
    engines::DiscMount mount;
    return mount.mount(image) == 0;
  }

  // Mounts below the test's folders.
  std::vector<std::string> mountPoints() const {
    std::vector<std::string> found = kxtest::mountsBelow(root.path());
    std::ranges::copy(kxtest::mountsBelow(media("")), std::back_inserter(found));
    return found;
  }
};

TEST_F(DiscSource, TheSoftwareEngineReadsAllPartsOfADvdsMainTitle) {
  const std::string folder = makeDvd("dvd");
  TranscodeParam param = job(folder);
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  const std::string title = folder + "/VIDEO_TS/VTS_02_";
  EXPECT_EQ(transcoder.getSWFfmpegFilenameInput(), "concat:" + title + "1.VOB|" + title + "3.VOB");

  KxResource2 cpu = resource(RES2_SW_CPU);
  ASSERT_EQ(finish(transcoder.transcode(cpu, false)), 0);
  const auto frames = kxtest::run({"ffprobe", "-v", "error", "-count_frames", "-select_streams",
                                   "v", "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0",
                                   media("result.mp4")});
  ASSERT_TRUE(frames);
  EXPECT_GT(std::stoi(*frames), 15);  // more than the ten pictures of one part
}

TEST_F(DiscSource, ADvdWhosePathHoldsTheSeparatorIsRefused) {
  const std::string folder = makeDvd("one|two");
  TranscodeParam param = job(folder);
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_EQ(transcoder.getSWFfmpegFilenameInput(), "");
  KxResource2 cpu = resource(RES2_SW_CPU);
  EXPECT_EQ(transcoder.transcode(cpu, false), -1);
}

TEST_F(DiscSource, TheSoftwareEngineReadsTheMainStreamOfABluRayDisc) {
  const std::string folder = makeBluRay("bd");
  TranscodeParam param = job(folder);
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_EQ(transcoder.getSWFfmpegFilenameInput(), folder + "/BDMV/STREAM/00002.m2ts");
}

TEST_F(DiscSource, AFolderWithoutADiscIndexIsProbedAsAnOrdinarySource) {
  fs::create_directories(media("VIDEO_TS"));
  TranscodeParam param = job(media("VIDEO_TS"));
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_TRUE(log.has(5, "KxTranscoder", "mediainfo init fail\n"));
}

TEST_F(DiscSource, APlainFileIsReadAsItIs) {
  makeClip(media("clip.mp4"), 64, 48, 0.2);
  TranscodeParam param = job(media("clip.mp4"));
  KxTranscoder transcoder;
  ASSERT_EQ(transcoder.init(param), 0);
  EXPECT_EQ(transcoder.getSWFfmpegFilenameInput(), media("clip.mp4"));
  EXPECT_EQ(transcoder.umountIso_(), 0);
}

TEST_F(DiscSource, ASmallFileNamedLikeAnImageIsMounted) {
  writeFile(media("tiny.iso"), "no image");
  TranscodeParam param = job(media("tiny.iso"));
  RecordingLog log;
  KxTranscoder transcoder;
  EXPECT_EQ(transcoder.init(param), 1);
  EXPECT_TRUE(log.has(5, "KxTranscoder", "mountIso " + media("tiny.iso") + " fail\n"));
}

TEST_F(DiscSource, AnImageStaysMountedUntilTheTranscoderGoes) {
  const std::string image = makeImage(makeDvd("disc"));
  if (image.empty() || !canMount(image)) GTEST_SKIP() << "disc images cannot be mounted here";
  std::string input;
  RecordingLog log;
  {
    TranscodeParam param = job(image);
    KxTranscoder transcoder;
    ASSERT_EQ(transcoder.init(param), 0);
    EXPECT_TRUE(log.has("chrootPath:"));
    EXPECT_TRUE(log.has("do not install Ampora, do not need to chroot mount\n"));
    input = transcoder.getSWFfmpegFilenameInput();
    ASSERT_TRUE(input.starts_with("concat:/"));
    EXPECT_TRUE(fs::exists(input.substr(7, input.find('|') - 7)));
    KxResource2 cpu = resource(RES2_SW_CPU);
    EXPECT_EQ(finish(transcoder.transcode(cpu, false)), 0);
  }
  EXPECT_FALSE(fs::exists(input.substr(7, input.find('|') - 7)));
  EXPECT_FALSE(log.hasPart("umountIso"));
  EXPECT_FALSE(log.has("umount iso fail\n"));
}

TEST_F(DiscSource, AnImageIsMountedForTheAddOnToo) {
  const std::string image = makeImage(makeDvd("disc"));
  if (image.empty() || !canMount(image)) GTEST_SKIP() << "disc images cannot be mounted here";
  root.write("/etc/config/kxpkg.conf", "[Ampora]\nInstall_Path=" + media("addon") + "\n");
  fs::create_directories(media("addon"));
  root.script("/usr/local/medialibrary/bin/transcode_agent",
              "while [ $# -gt 0 ]; do [ \"$1\" = -i ] && { echo \"$2\" > " + media("in") +
                  "; test -e \"$2/VIDEO_TS/VIDEO_TS.IFO\"; exit; }; shift; done; exit 9\n");
  std::string onHost;
  RecordingLog log;
  {
    TranscodeParam param = job(image);
    KxTranscoder transcoder;
    ASSERT_EQ(transcoder.init(param), 0);
    EXPECT_TRUE(log.has("chrootPath:" + media("addon")));
    KxResource2 internal = resource(RES2_GPU_INTERNAL);
    KxResource2 external = resource(RES2_GPU_EXTERNAL);
    ASSERT_EQ(finish(transcoder.transcode(internal, false)), 0);
    onHost = kxtest::readFile(media("in"));
    ASSERT_EQ(finish(transcoder.transcode(external, false)), 0);
    EXPECT_TRUE(kxtest::readFile(media("in")).starts_with(media("addon") + "/"));
    EXPECT_FALSE(onHost.starts_with(media("addon")));
    EXPECT_EQ(mountPoints().size(), 2U);
    EXPECT_EQ(transcoder.umountIso_(), 0);
    EXPECT_THAT(mountPoints(), testing::IsEmpty());
  }
  EXPECT_THAT(mountPoints(), testing::IsEmpty());
  EXPECT_FALSE(log.hasPart("umountIso"));
}

TEST_F(DiscSource, AFailedMountForTheAddOnFailsAndReleasesTheHostMount) {
  const std::string image = makeImage(makeDvd("disc"));
  if (image.empty() || !canMount(image)) GTEST_SKIP() << "disc images cannot be mounted here";
  root.write("/etc/config/kxpkg.conf", "[Ampora]\nInstall_Path=" + media("addon") + "\n");
  fs::create_directories(media("addon"));
  writeFile(media("addon/mnt"), "in the way");
  RecordingLog log;
  {
    TranscodeParam param = job(image);
    KxTranscoder transcoder;
    EXPECT_EQ(transcoder.init(param), 1);
    EXPECT_TRUE(log.has(5, "KxTranscoder",
                        "chroot to " + media("addon") + " and mount iso " + image + " fail\n"));
  }
  EXPECT_THAT(mountPoints(), testing::IsEmpty());
}

TEST_F(DiscSource, AReleaseFromTheAddOnThatFailsIsLoggedOnce) {
  const std::string image = makeImage(makeDvd("disc"));
  if (image.empty() || !canMount(image)) GTEST_SKIP() << "disc images cannot be mounted here";
  root.write("/etc/config/kxpkg.conf", "[Ampora]\nInstall_Path=" + media("addon") + "\n");
  fs::create_directories(media("addon"));
  std::string onHost;
  RecordingLog log;
  {
    TranscodeParam param = job(image);
    KxTranscoder transcoder;
    ASSERT_EQ(transcoder.init(param), 0);
    const std::vector<std::string> mounts = kxtest::mountsBelow(media("addon"));
    ASSERT_EQ(mounts.size(), 1U);
    onHost = mounts.front();
    ASSERT_TRUE(kxtest::run({"umount", onHost}));
    fs::remove(onHost);
    EXPECT_EQ(transcoder.umountIso_(), 1);
  }
  const std::string inAddOn = onHost.substr(fs::canonical(media("addon")).string().size());
  size_t failures = 0;
  for (const auto& line : log.lines())
    if (line.func == "umountIso_") ++failures;
  EXPECT_EQ(failures, 1U);
  EXPECT_EQ(log.count("chroot " + media("addon") + " umountIso " + inAddOn + " fail\n"), 1U);
  EXPECT_FALSE(log.has("umount iso fail\n")) << "it was released by hand before";
  EXPECT_THAT(mountPoints(), testing::IsEmpty());
}

TEST_F(DiscSource, AnotherInitReleasesTheImageOfTheFirst) {
  const std::string image = makeImage(makeDvd("disc"));
  if (image.empty() || !canMount(image)) GTEST_SKIP() << "disc images cannot be mounted here";
  {
    TranscodeParam param = job(image);
    KxTranscoder transcoder;
    ASSERT_EQ(transcoder.init(param), 0);
    const std::vector<std::string> first = mountPoints();
    ASSERT_EQ(transcoder.init(param), 0);
    EXPECT_EQ(mountPoints().size(), 1U);
    EXPECT_NE(mountPoints(), first);
  }
  EXPECT_THAT(mountPoints(), testing::IsEmpty());
}

TEST_F(DiscSource, AReleaseThatFailsIsLoggedOnce) {
  const std::string image = makeImage(makeDvd("disc"));
  if (image.empty() || !canMount(image)) GTEST_SKIP() << "disc images cannot be mounted here";
  RecordingLog log;
  {
    TranscodeParam param = job(image);
    KxTranscoder transcoder;
    ASSERT_EQ(transcoder.init(param), 0);
    const std::vector<std::string> mounts = mountPoints();
    ASSERT_EQ(mounts.size(), 1U);
    // Somebody else releases it first.
    ASSERT_TRUE(kxtest::run({"umount", mounts.front()}));
    fs::remove(mounts.front());
  }
  size_t failures = 0;
  for (const auto& line : log.lines())
    if (line.func == "umountIso_" && line.text.starts_with("umountIso /")) ++failures;
  EXPECT_EQ(failures, 1U);
  EXPECT_EQ(log.count("umount iso fail\n"), 1U);
}
