#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;

// Takes real sound files and documents through the runner.

namespace {

std::vector<std::string> filesOf(const std::string& folder) {
  std::vector<std::string> files;
  if (!mediaDir()) return files;
  for (const auto& entry : fs::directory_iterator(*mediaDir() + "/" + folder))
    files.push_back(entry.path());
  std::ranges::sort(files);
  return files;
}

std::string copyIn(const RunnerWorld& world, const std::string& file) {
  std::string copy = world.media(fs::path(file).filename());
  fs::copy_file(file, copy);
  fs::permissions(copy, fs::perms(0644));
  return copy;
}

std::string facts(const std::string& path, const std::string& entries) {
  return run({"ffprobe", "-v", "error", "-show_entries", entries, "-of", "default=nw=1", path})
      .value_or("");
}

size_t covers(const std::string& path) {
  const std::string text = facts(path, "stream_disposition=attached_pic");
  size_t count = 0;
  for (size_t at = text.find("=1"); at != std::string::npos; at = text.find("=1", at + 1)) ++count;
  return count;
}

// What has no sound that can be decoded.
const std::set<std::string> kNoSound = {"testMP4_coverArt.m4a"};

void makeRenderer(const RunnerWorld& world) {
  fs::remove(world.root().file("/usr/local/medialibrary/bin/catalogcmd"));
  fs::copy_file(std::string(KX_BUILD_DIR) + "/tools/catalogcmd",
                world.root().file("/usr/local/medialibrary/bin/catalogcmd"));
  world.root().script("/usr/local/sbin/gs", "exec gs \"$@\"\n");
}

// What cannot be opened, or lacks a page.
const std::set<std::string> kNoDocument = {"encryption_openpassword.pdf",
                                           "libreoffice-writer-password.pdf", "file1.pdf"};

}  // namespace

TEST(RealSounds, GiveAPlayableResultOrAReason) {
  const auto files = filesOf("audio");
  if (files.empty()) GTEST_SKIP() << "no folder of real media files";
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    RunnerWorld world;
    RecordingLog log;
    const KxDBTaskParam row = world.run(copyIn(world, file), PROFILE_AUDIO);
    EXPECT_TRUE(world.leftovers().empty());
    const std::string result =
        world.media("Video2audio/" + fs::path(file).stem().string() + ".mp3");
    printf("%s: %s\n", fs::path(file).filename().c_str(),
           row.status == JOB_DONE ? "done" : world.reason(row.id).c_str());
    if (kNoSound.contains(fs::path(file).filename())) {
      EXPECT_EQ(row.status, JOB_ERROR);
      EXPECT_NE(world.reason(row.id), "");
      EXPECT_FALSE(fs::exists(result));
      continue;
    }
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_EQ(probe(result)->audioCodec, "mp3");
    EXPECT_TRUE(decodesClean(result));
    EXPECT_EQ(covers(result), covers(file));
  }
}

TEST(Sounds, KeepTheirTags) {
  RunnerWorld world;
  RecordingLog log;
  for (const std::string name : {"song.flac", "song.ogg", "song.m4a"}) {
    run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=d=1", "-metadata", "title=My Song",
         "-metadata", "artist=Somebody", world.media(name)});
    const KxDBTaskParam row = world.run(world.media(name), PROFILE_AUDIO);
    ASSERT_EQ(row.status, JOB_DONE) << name << world.reason(row.id);
    const std::string tags = facts(world.media("Video2audio/song.mp3"), "format_tags");
    EXPECT_NE(tags.find("TAG:title=My Song"), std::string::npos) << name << tags;
    EXPECT_NE(tags.find("TAG:artist=Somebody"), std::string::npos) << name << tags;
    fs::remove_all(world.media("Video2audio"));
  }
}

TEST(RealDocuments, GiveAPictureOfEveryPageOrAReason) {
  const auto files = filesOf("pdf");
  if (files.empty()) GTEST_SKIP() << "no folder of real media files";
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    RunnerWorld world;
    RecordingLog log;
    makeRenderer(world);
    const std::string source = copyIn(world, file);
    const KxDBTaskParam row = world.run(source, PROFILE_240P);
    printf("%s: %s\n", fs::path(file).filename().c_str(),
           row.status == JOB_DONE ? "done" : world.reason(row.id).c_str());
    if (row.status == JOB_DONE) {
      const std::string first = source + ".album/" + fs::path(file).stem().string() + "-1.jpg";
      EXPECT_EQ(facts(first, "stream=codec_name"), "codec_name=mjpeg\n");
    } else {
      EXPECT_NE(world.reason(row.id), "");
      EXPECT_FALSE(fs::exists(source + ".album"));
    }
    if (kNoDocument.contains(fs::path(file).filename())) {
      EXPECT_EQ(row.status, JOB_ERROR);
    }
  }
}
