#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <sstream>

#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr uint64_t kFour = PROFILE_240P | PROFILE_360P | PROFILE_480P | PROFILE_720P;

std::string picturesOf(const std::string& path) {
  return kxtest::run(
             kxtest::quietFfmpeg({"-i", path, "-map", "0:v", "-c", "copy", "-f", "md5", "-"}))
      .value_or("unreadable");
}

}  // namespace

class FanOut : public testing::Test {
 protected:
  FanOut() { recordCommands("exec ffmpeg -nostdin \"$@\"\n"); }

  // Every encoder notes how many results it writes before it goes on.
  void recordCommands(const std::string& body) {
    world.setEncoder("results=0; last=\nfor word; do\n"
                     "[ \"$word\" = -c:v ] && results=$((results + 1)); last=$word\ndone\n"
                     "echo $results >>'" +
                     world.root().path() + "/commands'\n" + body);
  }
  // Number of results of each encoder that ran, in order.
  std::vector<int> encoders() const {
    std::vector<int> counts;
    std::istringstream lines(readFile(world.root().path() + "/commands"));
    for (int count = 0; lines >> count;) counts.push_back(count);
    return counts;
  }
  void forgetEncoders() { fs::remove(world.root().path() + "/commands"); }

  std::string clip(const std::string& name, const std::vector<std::string>& more = {}) {
    makeClip(world.media(name), 320, 240, 1, more);
    return world.media(name);
  }
  std::string result(const std::string& name) { return world.media("@Transcode/" + name); }
  void expectDone(const KxDBTaskParam& row) {
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_THAT(world.leftovers(), IsEmpty());
    EXPECT_EQ(world.registrations(), 0u);
  }

  RunnerWorld world;
  RecordingLog log;
};

TEST_F(FanOut, IsOffUnlessItIsTurnedOn) {
  expectDone(world.run(clip("film.mp4"), kFour));
  EXPECT_THAT(encoders(), ElementsAre(1, 1, 1, 1));
}

TEST_F(FanOut, OneEncoderMakesAllProfilesWithTheSamePicturesAsSingleOnes) {
  const std::string single = clip("single.mp4");
  fs::copy_file(single, world.media("shared.mp4"));
  expectDone(world.run(single, kFour));
  forgetEncoders();
  world.configure("FANOUT=1\n");
  expectDone(world.run(world.media("shared.mp4"), kFour));
  EXPECT_THAT(encoders(), ElementsAre(4));
  for (const char* profile : {"mobile240p", "mobile360p", "mobile480p", "ipad720p"}) {
    const std::string alone = result(std::string("single.mp4.") + profile + ".mp4");
    const std::string together = result(std::string("shared.mp4.") + profile + ".mp4");
    EXPECT_THAT(picturesOf(alone), HasSubstr("MD5="));
    EXPECT_EQ(picturesOf(together), picturesOf(alone)) << profile;
    EXPECT_TRUE(decodesClean(together));
    EXPECT_TRUE(hasIndexInFront(together));
    EXPECT_EQ(fs::last_write_time(together), fs::last_write_time(alone)) << profile;
    EXPECT_TRUE(fs::exists(world.media(std::string(".@__thumb/transcode/shared.mp4.") + profile)));
  }
}

TEST_F(FanOut, ATurnedSourceGivesUprightProfiles) {
  world.configure("FANOUT=1\n");
  expectDone(world.run(clip("film.mp4"), PROFILE_240P | PROFILE_360P,
                       [](KxDBTaskParam& job) { job.rotation = 90; }));
  EXPECT_THAT(encoders(), ElementsAre(2, 0, 0));  // and a copy of each without its rotation
  for (const char* profile : {"mobile240p", "mobile360p"}) {
    const auto probed = probe(result(std::string("film.mp4.") + profile + ".90.mp4"));
    ASSERT_TRUE(probed);
    EXPECT_LT(probed->width, probed->height);
    EXPECT_FALSE(probed->turned);
  }
}

TEST_F(FanOut, TheSoundIsMadeBesideThePictures) {
  world.configure("FANOUT=1\n");
  expectDone(world.run(clip("film.mp4"), PROFILE_240P | PROFILE_360P | PROFILE_AUDIO));
  EXPECT_THAT(encoders(), ElementsAre(2, 0));
  EXPECT_TRUE(fs::exists(world.media("Video2audio/film.mp3")));
}

TEST_F(FanOut, ProfilesInPlaceAreLeftOut) {
  world.configure("FANOUT=1\n");
  const std::string film = clip("film.mp4");
  expectDone(world.run(film, PROFILE_360P));
  expectDone(world.run(film, PROFILE_240P | PROFILE_360P | PROFILE_480P));
  EXPECT_THAT(encoders(), ElementsAre(1, 2));
  forgetEncoders();
  expectDone(world.run(film, PROFILE_240P | PROFILE_360P | PROFILE_720P));
  EXPECT_THAT(encoders(), ElementsAre(1));
  forgetEncoders();
  expectDone(world.run(film, kFour));
  EXPECT_THAT(encoders(), IsEmpty());
}

TEST_F(FanOut, WhenTheSharedEncoderFailsEachProfileIsTriedByItself) {
  world.configure("FANOUT=1\n");
  recordCommands("[ $results -gt 1 ] && exit 3\nexec ffmpeg -nostdin \"$@\"\n");
  const std::string film = clip("film.mp4");
  expectDone(world.run(film, PROFILE_240P | PROFILE_360P));
  EXPECT_THAT(encoders(), ElementsAre(2, 1, 1));
  EXPECT_TRUE(log.has(2, "KxTranscodeUnit2",
                      "one encoder for 2 profiles of " + film +
                          ": the encoder ended with 3, we try each by itself\n"));
}

TEST_F(FanOut, AFaultyResultAloneIsTriedAgain) {
  world.configure("FANOUT=1\n");
  recordCommands("ffmpeg -nostdin \"$@\" || exit\n[ $results = 1 ] || echo broken >\"$last\"\n");
  expectDone(world.run(clip("film.mp4"), PROFILE_240P | PROFILE_360P | PROFILE_480P));
  EXPECT_THAT(encoders(), ElementsAre(3, 1));
  EXPECT_TRUE(log.hasPart("mobile480p of "));
  EXPECT_TRUE(decodesClean(result("film.mp4.mobile480p.mp4")));
}

TEST_F(FanOut, AProfileThatFailsByItselfTooFailsTheJob) {
  world.configure("FANOUT=1\n");
  recordCommands("ffmpeg -nostdin \"$@\" || exit\necho broken >\"$last\"\n");
  const KxDBTaskParam row = world.run(clip("film.mp4"), PROFILE_240P | PROFILE_360P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_THAT(encoders(), ElementsAre(2, 1));
  EXPECT_THAT(world.reason(row.id), HasSubstr("mobile360p"));
  EXPECT_THAT(world.leftovers(), IsEmpty());
  EXPECT_TRUE(decodesClean(result("film.mp4.mobile240p.mp4")));  // what came out well stays
}

TEST_F(FanOut, AStopEndsTheSharedEncoder) {
  world.configure("FANOUT=1\n");
  recordCommands("exec ffmpeg -nostdin -re \"$@\"\n");
  makeClip(world.media("long.mp4"), 160, 120, 30);
  const KxDBTaskParam job = world.addJob(world.media("long.mp4"), PROFILE_240P | PROFILE_360P);
  world.start(job);
  ASSERT_TRUE(world.waitForChild());
  ASSERT_TRUE(waitUntil([&] { return encoders().size() == 1; }));
  const int child = world.unit()->getPid();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits(std::chrono::seconds(10)));
  EXPECT_NE(kill(child, 0), 0);
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_THAT(encoders(), ElementsAre(2));
  EXPECT_THAT(world.leftovers(), IsEmpty());
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(FanOut, ASuspendedJobMakesAllOfThemLater) {
  world.configure("FANOUT=1\n");
  recordCommands("exec ffmpeg -nostdin -re \"$@\"\n");
  makeClip(world.media("film.mp4"), 160, 120, 30);
  const KxDBTaskParam job = world.addJob(world.media("film.mp4"), PROFILE_240P | PROFILE_360P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return encoders().size() == 1; }));
  world.pending(job);
  ASSERT_TRUE(waitUntil([&] { return world.registrations() == 0; }));
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.mp4")));
  recordCommands("exec ffmpeg -nostdin \"$@\"\n");
  world.resume(job);
  ASSERT_TRUE(world.waitForUnits());
  expectDone(world.row(job.id));
  EXPECT_THAT(encoders(), ElementsAre(2, 2));
}

TEST_F(FanOut, AStopBetweenTheResultsKeepsThoseInPlace) {
  world.configure("FANOUT=1\n");
  // The rotation is taken out of each result by itself; the second time never ends.
  recordCommands("[ $results -eq 0 ] && [ \"$(grep -c '^0$' '" + world.root().path() +
                 "/commands')\" = 2 ] && exec sleep 600\nexec ffmpeg -nostdin \"$@\"\n");
  const std::string film = clip("film.mp4");
  const KxDBTaskParam job = world.addJob(film, PROFILE_240P | PROFILE_360P,
                                         [](KxDBTaskParam& asked) { asked.rotation = 90; });
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return encoders().size() == 3; }));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
  EXPECT_TRUE(decodesClean(result("film.mp4.mobile240p.90.mp4")));
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile360p.90.mp4")));
  EXPECT_THAT(world.leftovers(), IsEmpty());
  forgetEncoders();
  recordCommands("exec ffmpeg -nostdin \"$@\"\n");
  expectDone(world.runAgain(world.row(job.id)));
  EXPECT_THAT(encoders(), ElementsAre(1, 0));
}

TEST_F(FanOut, SubtitlesAreDrawnAsInSingleOnes) {
  const std::string text = "1\n00:00:00,000 --> 00:00:01,000\nA LONG LINE OF TEXT\n";
  writeFile(world.media("text.srt"), text);
  fs::copy_file(std::string(KX_BUILD_DIR) + "/tools/subpull",
                world.root().file("/usr/local/medialibrary/bin/subpull"));
  for (const bool isEmbedded : {false, true}) {
    const std::string kind = isEmbedded ? "embedded" : "external";
    const std::string single = clip(kind + "1.mp4");
    if (isEmbedded) {
      ASSERT_TRUE(kxtest::run({"ffmpeg", "-nostdin", "-v", "error", "-i", single, "-i",
                               world.media("text.srt"), "-c", "copy", "-c:s", "mov_text",
                               world.media("with.mp4")}));
      fs::rename(world.media("with.mp4"), single);
    }
    const std::string shared = world.media(kind + "2.mp4");
    fs::copy_file(single, shared);
    const auto ask = [&](KxDBTaskParam& job) {
      if (isEmbedded) job.sid = 0;
      if (!isEmbedded) job.subtitle = world.media("text.srt");
    };
    expectDone(world.run(single, PROFILE_240P, ask));
    expectDone(world.run(single, PROFILE_240P | PROFILE_360P, ask));
    forgetEncoders();
    world.configure("FANOUT=1\n");
    expectDone(world.run(shared, PROFILE_240P | PROFILE_360P, ask));
    // A track is extracted first, once for all.
    EXPECT_EQ(encoders(), isEmbedded ? std::vector<int>({0, 2}) : std::vector<int>({2})) << kind;
    for (const char* profile : {".mobile240p.mp4", ".mobile360p.mp4"}) {
      EXPECT_EQ(picturesOf(result(kind + "2.mp4" + profile)),
                picturesOf(result(kind + "1.mp4" + profile)));
    }
  }
}

TEST_F(FanOut, TheUnitShowsTheSharedEncoder) {
  world.configure("FANOUT=1\n");
  recordCommands("exec ffmpeg -nostdin -re \"$@\"\n");
  makeClip(world.media("long.mp4"), 160, 120, 30);
  const KxDBTaskParam job = world.addJob(world.media("long.mp4"), PROFILE_240P | PROFILE_360P);
  world.start(job);
  ASSERT_TRUE(world.waitForChild());
  EXPECT_EQ(world.unit()->getReg().m_resId, "sw_cpu");
  EXPECT_EQ(world.registrations(), 1u);
  EXPECT_TRUE(waitUntil([&] { return world.unit()->getProgress() == 50; }));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
}

TEST_F(FanOut, WithACardEachProfileGoesItsOwnWay) {
  world.configure("FANOUT=1\n");
  world.setCards({"0:10de:1234:external:nvidia"});
  world.setAgent("exit 1\n");
  expectDone(world.run(clip("film.mp4"), PROFILE_240P | PROFILE_360P));
  EXPECT_THAT(encoders(), ElementsAre(1, 1));
  EXPECT_TRUE(log.hasPart("keep trying the next resource transcode"));
}

TEST_F(FanOut, ASourceWithoutPicturesFailsAsEver) {
  world.configure("FANOUT=1\n");
  const std::string sound = clip("sound.mp4", {"-vn"});
  const KxDBTaskParam row = world.run(sound, PROFILE_240P | PROFILE_360P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_THAT(world.reason(row.id), HasSubstr("the source has no video"));
  EXPECT_THAT(encoders(), IsEmpty());
}
