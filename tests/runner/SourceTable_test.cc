#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
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

// What cannot be opened, or lacks its page, and a word of the reason.
const std::map<std::string, std::string> kNoDocument = {
    {"encryption_openpassword.pdf", "encrypted"},
    {"libreoffice-writer-password.pdf", "encrypted"},
    {"file1.pdf", "damaged"},
    {"T02-02_004_page-tree-non-existing-object-as-kid.pdf", "page not found"},
};

// The number of pages that the folder's MANIFEST.tsv states.
int pagesOf(const std::string& name) {
  const std::string manifest = readFile(*mediaDir() + "/MANIFEST.tsv");
  const size_t line = manifest.find("\npdf/" + name + "\t");
  const size_t pages = manifest.find("\tpages=", line);
  return pages == std::string::npos ? 0 : atoi(manifest.c_str() + pages + 7);
}

// A line of the table of kinds and outcomes.
void printOutcome(const char* kind, const std::string& file, const std::string& outcome) {
  printf("%-9s %-55s %s\n", kind, fs::path(file).filename().c_str(), outcome.c_str());
}

}  // namespace

TEST(RealSounds, GiveAPlayableResultOrAReason) {
  const auto files = filesOf("audio");
  if (files.empty()) GTEST_SKIP() << "no folder of real media files";
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    RunnerWorld world;
    world.useFrontEnd();
    RecordingLog log;
    const KxDBTaskParam row = world.run(copyIn(world, file), PROFILE_AUDIO);
    EXPECT_TRUE(world.leftovers().empty());
    const std::string result =
        world.media("Video2audio/" + fs::path(file).stem().string() + ".mp3");
    printOutcome("sound", file, row.status == JOB_DONE ? "done" : world.reason(row.id));
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
  world.useFrontEnd();
  RecordingLog log;
  for (const std::string name : {"song.flac", "song.ogg", "song.opus", "song.m4a", "song.wma",
                                 "song.mka", "song.wav", "song.aiff"}) {
    std::vector<std::string> words = {"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=d=1"};
    words.insert(words.end(), {"-metadata", "title=My Song", "-metadata", "artist=Somebody"});
    if (name == "song.aiff") words.insert(words.end(), {"-write_id3v2", "1"});
    words.push_back(world.media(name));
    ASSERT_TRUE(run(words)) << name;
    const KxDBTaskParam row = world.run(world.media(name), PROFILE_AUDIO);
    ASSERT_EQ(row.status, JOB_DONE) << name << world.reason(row.id);
    const std::string tags = facts(world.media("Video2audio/song.mp3"), "format_tags");
    EXPECT_NE(tags.find("TAG:title=My Song"), std::string::npos) << name << tags;
    EXPECT_NE(tags.find("TAG:artist=Somebody"), std::string::npos) << name << tags;
    fs::remove_all(world.media("Video2audio"));
  }
}

TEST(Sounds, KeepTheirCoverArt) {
  RunnerWorld world;
  world.useFrontEnd();
  RecordingLog log;
  for (const std::string picture : {"cover.jpg", "cover.png"}) {
    ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=red:s=64x48", "-frames:v",
                     "1", world.media(picture)}));
    for (const std::string name : {"song.flac", "song.m4a", "song.mp3"}) {
      SCOPED_TRACE(testing::Message() << picture << " in " << name);
      ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "sine=d=1", "-i",
                       world.media(picture), "-map", "0:a", "-map", "1:v", "-c:v", "copy",
                       "-disposition:v", "attached_pic", world.media(name)}));
      const KxDBTaskParam row = world.run(world.media(name), PROFILE_AUDIO);
      ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
      const std::string result = world.media("Video2audio/song.mp3");
      EXPECT_EQ(covers(result), 1U);
      EXPECT_EQ(run({"ffmpeg", "-v", "error", "-i", result, "-map", "0:v", "-c", "copy", "-f",
                     "image2pipe", "-"}),
                readFile(world.media(picture)));
      fs::remove_all(world.media("Video2audio"));
      fs::remove(world.media(name));
    }
  }
}

TEST(Sounds, AreTakenFromTheTrackThatIsAskedFor) {
  RunnerWorld world;
  world.useFrontEnd();
  RecordingLog log;
  ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=d=1", "-f", "lavfi", "-i",
                   "sine=d=4", "-map", "0", "-map", "1", world.media("two.mka")}));
  const auto extract = [&](int track) {
    fs::remove_all(world.media("Video2audio"));
    return world.run(world.media("two.mka"), PROFILE_AUDIO,
                     [track](KxDBTaskParam& job) { job.aid = track; });
  };
  for (const auto& [track, seconds] : {std::pair{0, 1.0}, {1, 4.0}}) {
    const KxDBTaskParam row = extract(track);
    ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_NEAR(probe(world.media("Video2audio/two.mp3"))->seconds, seconds, 0.2);
  }
  const KxDBTaskParam row = extract(2);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "the source has no audio track 2, its last one is 1");
}

TEST(RealDocuments, GiveAPictureOfEveryPageOrAReason) {
  const auto files = filesOf("pdf");
  if (files.empty()) GTEST_SKIP() << "no folder of real media files";
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    RunnerWorld world;
    world.useFrontEnd();
    RecordingLog log;
    makeRenderer(world);
    const std::string source = copyIn(world, file);
    const KxDBTaskParam row = world.run(source, PROFILE_240P);
    const std::string name = fs::path(file).filename();
    const std::string album = source + ".album/" + fs::path(file).stem().string() + "-";
    const auto unreadable = kNoDocument.find(name);
    if (unreadable != kNoDocument.end()) {
      printOutcome("document", file, world.reason(row.id));
      EXPECT_EQ(row.status, JOB_ERROR);
      EXPECT_NE(world.reason(row.id).find(unreadable->second), std::string::npos)
          << world.reason(row.id);
      EXPECT_FALSE(fs::exists(source + ".album"));
      continue;
    }
    const int pages = pagesOf(name);
    printOutcome("document", file, "done, pages: " + std::to_string(pages));
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_GT(pages, 0);
    for (int page = 1; page <= pages; ++page)
      EXPECT_TRUE(fs::exists(album + std::to_string(page) + ".jpg")) << page;
    for (const int page : {1, pages}) {
      EXPECT_EQ(facts(album + std::to_string(page) + ".jpg", "stream=codec_name"),
                "codec_name=mjpeg\n");
    }
    EXPECT_FALSE(fs::exists(album + std::to_string(pages + 1) + ".jpg"));
  }
}
