#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;

// Takes every file of a folder of real media through the runner. The folder's MANIFEST.tsv
// says what each file is.

namespace {

struct MediaFile {
  std::string path;  // below the media folder
  double width = 0;  // of the first picture, as stored
  double height = 0;
  double aspect = 0;  // display aspect as stored, before any rotation
  int rotation = 0;
  double seconds = 0;
  bool hasSound = false;
  bool playable = false;
};

std::vector<std::string> cells(const std::string& line) {
  std::vector<std::string> result;
  std::istringstream in(line);
  for (std::string cell; std::getline(in, cell, '\t');) result.push_back(cell);
  return result;
}

MediaFile mediaFile(const std::vector<std::string>& row) {
  MediaFile file;
  file.path = row[0];
  char codec[64];
  sscanf(row[8].c_str(), "%63s %lfx%lf", codec, &file.width, &file.height);
  double num = 0;
  double den = 0;
  const size_t slash = row[9].find('/');
  if (slash != std::string::npos) sscanf(row[9].c_str() + slash + 1, "%lf:%lf", &num, &den);
  file.aspect = num > 0 && den > 0 ? num / den : file.width / std::max(file.height, 1.0);
  file.rotation = atoi(row[10].c_str());
  file.seconds = atof(row[12].c_str());
  file.hasSound = row[13] != "-";
  // A second, empty track spoils the decoding of the whole, not that of the first.
  file.playable = row[15].starts_with("decodes") || row[0] == "video/sample_empty_track.mp4";
  return file;
}

std::vector<MediaFile> manifest(const std::string& folder) {
  std::vector<MediaFile> files;
  if (!mediaDir()) return files;
  std::istringstream lines(readFile(*mediaDir() + "/MANIFEST.tsv"));
  for (std::string line; std::getline(lines, line);) {
    const auto row = cells(line);
    if (row.size() > 16 && row[0].starts_with(folder + "/")) files.push_back(mediaFile(row));
  }
  return files;
}

// Files whose container states a length that is not that of the pictures and sounds in it.
double playTime(const MediaFile& file) {
  static const std::map<std::string, double> kReal = {
      {"video/sample_fragmented.mp4", 1.07},
      {"video/nasa_13013.mp4", 13.06},
      {"video/matroska-test-w1-test5-short.mkv", 2.0},
  };
  const auto real = kReal.find(file.path);
  return real == kReal.end() ? file.seconds : real->second;
}

std::string copyIn(const RunnerWorld& world, const MediaFile& file) {
  std::string copy = world.media(fs::path(file.path).filename().string());
  fs::copy_file(*mediaDir() + "/" + file.path, copy);
  fs::permissions(copy, fs::perms(0644));
  return copy;
}

void expectGoodResult(const MediaFile& file, const std::string& path) {
  SCOPED_TRACE(path);
  const auto probed = probe(path);
  ASSERT_TRUE(probed);
  const bool onItsSide = file.rotation == 90 || file.rotation == 270;
  const double aspect = onItsSide ? 1 / file.aspect : file.aspect;
  EXPECT_NEAR(probed->width * probed->sar / probed->height, aspect, aspect * 0.01)
      << probed->width << "x" << probed->height << " sar " << probed->sar;
  EXPECT_NEAR(probed->seconds, playTime(file), std::max(1.0, playTime(file) * 0.02));
  EXPECT_FALSE(probed->turned);
  EXPECT_EQ(probed->videoCodec, "h264");
  EXPECT_EQ(probed->audioCodec, file.hasSound ? "aac" : "");
  EXPECT_TRUE(decodesClean(path));
}

// Full size only where that takes a moment.
uint64_t profilesFor(const MediaFile& file) {
  const double pixels = file.width * file.height * std::max(playTime(file), 0.1);
  return pixels < 6e6 ? PROFILE_240P | PROFILE_ORIGINAL : PROFILE_240P;
}

void expectGoodResults(const MediaFile& file) {
  SCOPED_TRACE(file.path);
  RunnerWorld world;
  world.useFrontEnd();
  RecordingLog log;
  const KxDBTaskParam row = world.run(copyIn(world, file), profilesFor(file));
  EXPECT_TRUE(world.leftovers().empty());
  if (!file.playable) {
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_NE(world.reason(row.id), "");
    return;
  }
  ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  for (const KxJobOutput& output : kxJobOutputs(row)) expectGoodResult(file, output.path);
}

// The files are dealt out to a few tests, so that these can run side by side.
constexpr size_t kShares = 4;

void checkShareOfVideos(size_t share) {
  const auto files = manifest("video");
  if (files.empty()) GTEST_SKIP() << "no folder of real media files";
  for (size_t i = share; i < files.size(); i += kShares) expectGoodResults(files[i]);
}

}  // namespace

TEST(RealVideos, ComeOutUprightUndistortedAndWholeFirstShare) {
  checkShareOfVideos(0);
}

TEST(RealVideos, ComeOutUprightUndistortedAndWholeSecondShare) {
  checkShareOfVideos(1);
}

TEST(RealVideos, ComeOutUprightUndistortedAndWholeThirdShare) {
  checkShareOfVideos(2);
}

TEST(RealVideos, ComeOutUprightUndistortedAndWholeFourthShare) {
  checkShareOfVideos(3);
}

namespace {

// What is still a whole video although something is wrong with it.
const std::set<std::string> kUsable = {
    "broken/corrupted.mp4",             // some frames in the middle are damaged
    "broken/sample_mdat_too_long.mp4",  // all samples are there
    "broken/sample_with_junk.ts",       // damaged pictures, all of them there
    "broken/test-125.ts",               // nothing wrong but its shortness
};

}  // namespace

TEST(BrokenFiles, EndInAnErrorWithAReasonUnlessAllOfTheVideoIsThere) {
  const auto files = manifest("broken");
  if (files.empty()) GTEST_SKIP() << "no folder of real media files";
  for (const MediaFile& file : files) {
    SCOPED_TRACE(file.path);
    RunnerWorld world;
    world.useFrontEnd();
    RecordingLog log;
    const KxDBTaskParam row = world.run(copyIn(world, file), PROFILE_240P);
    EXPECT_TRUE(world.leftovers().empty());
    const std::string result = kxJobOutputs(row)[0].path;
    printf("%s: %s\n", file.path.c_str(),
           row.status == JOB_DONE ? "done" : world.reason(row.id).c_str());
    if (kUsable.contains(file.path)) {
      EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
      EXPECT_TRUE(decodesClean(result));
    } else {
      EXPECT_EQ(row.status, JOB_ERROR);
      EXPECT_NE(world.reason(row.id), "");
      EXPECT_FALSE(fs::exists(result));
    }
  }
}
