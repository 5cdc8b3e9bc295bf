#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <thread>

#include "KxResMgr2.h"
#include "KxTransDBMgr.h"
#include "tests/runner/RunnerWorld.h"
#include "tests/support/PhoneClip.h"

namespace fs = std::filesystem;
using namespace kxtest;
using std::chrono::steady_clock;

namespace {

constexpr const char* kSource = "KxTranscodeUnit2";
// Encodes no faster than a player would show it.
constexpr const char* kSlowEncoder = "exec ffmpeg -re \"$@\"\n";

int64_t modified(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_mtim.tv_sec : -1;
}

void setModified(const std::string& path, time_t time) {
  const utimbuf times{time, time};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}

bool isAlive(int pid) {
  return kill(pid, 0) == 0;
}

}  // namespace

class JobRunner : public testing::Test {
 protected:
  RunnerWorld world;
  RecordingLog log;

  std::string clip(const std::string& name, int width = 160, int height = 120, double seconds = 1,
                   const std::vector<std::string>& more = {}) {
    makeClip(world.media(name), width, height, seconds, more);
    setModified(world.media(name), 1000000000);
    return world.media(name);
  }
  std::string result(const std::string& name) { return world.media("@Transcode/" + name); }
  void expectDone(const KxDBTaskParam& row, const std::string& remark = "") {
    EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    EXPECT_EQ(world.reason(row.id), remark);
    expectNothingLeft();
  }
  void expectFailed(const KxDBTaskParam& row, const std::string& reason) {
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_NE(world.reason(row.id).find(reason), std::string::npos) << world.reason(row.id);
    expectNothingLeft();
  }
  void expectWaiting(const KxDBTaskParam& row) {
    EXPECT_EQ(row.status, JOB_WAITING);
    EXPECT_EQ(row.dateStart, 0);
    EXPECT_EQ(row.dateFinish, 0);
    expectNothingLeft();
  }
  void expectNothingLeft() {
    EXPECT_THAT(world.leftovers(), testing::IsEmpty());
    EXPECT_EQ(world.registrations(), 0u);
  }
  bool hasLine(int level, const std::string& text) { return log.has(level, kSource, text); }
};

struct WantedVideo {
  const char* profile;
  int width;
  int height;
  const char* h264Profile;
};

TEST_F(JobRunner, EveryProfileOfAFullHdClipComesOutRight) {
  const std::string source = clip("film.mp4", 1920, 1080, 1, {"-ac", "1"});
  const time_t before = time(nullptr);
  const KxDBTaskParam row = world.run(source, 0x7f);
  expectDone(row);
  EXPECT_GE(row.dateStart, before);
  EXPECT_GE(row.dateFinish, row.dateStart);
  EXPECT_LE(row.dateFinish, time(nullptr));
  const WantedVideo wanted[] = {
      {"mobile240p", 426, 240, "Main"},    {"mobile360p", 640, 360, "Main"},
      {"mobile480p", 852, 480, "Main"},    {"ipad720p", 1280, 720, "High"},
      {"mobile1080p", 1920, 1080, "High"}, {"original", 1920, 1080, "High"}};
  for (const WantedVideo& video : wanted) {
    SCOPED_TRACE(video.profile);
    const std::string path = result(std::string("film.mp4.") + video.profile + ".mp4");
    const auto probed = probe(path);
    ASSERT_TRUE(probed);
    EXPECT_EQ(probed->width, video.width);
    EXPECT_EQ(probed->height, video.height);
    EXPECT_EQ(probed->videoCodec, "h264");
    EXPECT_EQ(probed->profile, video.h264Profile);
    EXPECT_EQ(probed->audioCodec, "aac");
    EXPECT_EQ(probed->channels, 2);
    EXPECT_EQ(probed->sampleRate, 44100);
    EXPECT_NEAR(probed->seconds, 1, 0.2);
    EXPECT_NEAR(probed->width * probed->sar / probed->height, 16.0 / 9, 0.01 * 16 / 9);
    EXPECT_FALSE(probed->turned);
    EXPECT_TRUE(hasIndexInFront(path));
    EXPECT_TRUE(decodesClean(path));
    EXPECT_EQ(modified(path), 1000000000);
    const std::string link =
        world.media(std::string(".@__thumb/transcode/film.mp4.") + video.profile);
    EXPECT_EQ(fs::read_symlink(link),
              std::string("../../@Transcode/film.mp4.") + video.profile + ".mp4");
  }
  const std::string sound = world.media("Video2audio/film.mp3");
  const auto probed = probe(sound);
  ASSERT_TRUE(probed);
  EXPECT_EQ(probed->audioCodec, "mp3");
  EXPECT_EQ(probed->channels, 2);
  EXPECT_EQ(probed->sampleRate, 44100);
  EXPECT_TRUE(decodesClean(sound));
  EXPECT_EQ(modified(sound), 1000000000);
}

TEST_F(JobRunner, ThePathsThatAJobNamesAreThoseOfItsResults) {
  const std::string source = clip("film.mp4");
  const KxDBTaskParam row = world.run(source, PROFILE_240P | PROFILE_AUDIO);
  expectDone(row);
  const auto outputs = kxJobOutputs(row);
  ASSERT_EQ(outputs.size(), 2u);
  EXPECT_TRUE(fs::is_regular_file(outputs[0].path));
  EXPECT_TRUE(fs::is_symlink(outputs[0].link));
  EXPECT_TRUE(fs::equivalent(outputs[0].link, outputs[0].path));
  EXPECT_TRUE(fs::is_regular_file(outputs[1].path));
}

TEST_F(JobRunner, EveryStepIsLoggedUnderTheThreadRoutine) {
  world.run(clip("film.mp4"), PROFILE_240P);
  EXPECT_TRUE(hasLine(5, "skip config idx=1, configName=mobile360p\n"));
  EXPECT_TRUE(hasLine(5, "set reg to transcodeunit\n"));
  EXPECT_TRUE(hasLine(5, "resId(sw_cpu) transcode success\n"));
  for (const auto& line : log.lines()) {
    const bool isRunners = line.text.starts_with("skip config") || line.text.starts_with("resId(");
    if (!isRunners) continue;
    EXPECT_EQ(line.func, "unitBGTranscodeThread");
  }
}

TEST_F(JobRunner, TheThreadOfAJobIsPutUnderTheLimits) {
  world.run(clip("film.mp4"), 1 << 7);
  for (const char* tasks : {"cpu/kxrunner/tasks", "memory/kxrunner/tasks"}) {
    const int thread = atoi(readFile(world.cgroupFile(tasks)).c_str());
    EXPECT_GT(thread, 0) << tasks;
    EXPECT_NE(thread, gettid()) << tasks;
  }
}

TEST_F(JobRunner, AJobThatSelectsNoProfileEndsWithItsDatesWritten) {
  const KxDBTaskParam row = world.run(clip("film.mp4"), 1 << 7);
  expectDone(row);
  EXPECT_GT(row.dateStart, 0);
  EXPECT_GT(row.dateFinish, 0);
  const char* names[] = {"mobile240p",  "mobile360p", "mobile480p", "ipad720p",
                         "mobile1080p", "original",   "video2audio"};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(log.count("skip config idx=" + std::to_string(i) + ", configName=" + names[i] + "\n"),
              1u);
  }
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.mp4")));
}

TEST_F(JobRunner, WithoutAnyResourceTheJobFails) {
  const std::string source = clip("film.mp4");
  fs::remove(world.root().file("/sbin/accelctl"));
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id), "mobile240p: there is no transcoding resource");
  EXPECT_TRUE(hasLine(2, "resource vector is empty\n"));
  EXPECT_TRUE(hasLine(2, "priority resource vector is empty\n"));
  EXPECT_TRUE(world.leftovers().empty());
  EXPECT_EQ(world.run(source, PROFILE_AUDIO).status, JOB_ERROR);
}

TEST_F(JobRunner, AFailedEncoderFailsTheJobAndItsLastWordIsKept) {
  const std::string source = clip("film.mp4");
  world.setEncoder("printf 'frame=1\\rframe=2\\nout of luck\\nframe=  3 fps=1\\r' >&2\nexit 3\n");
  const KxDBTaskParam row = world.run(source, PROFILE_240P | PROFILE_360P);
  expectFailed(row, "");
  EXPECT_EQ(world.reason(row.id), "mobile240p: sw_cpu: the encoder ended with 3: out of luck");
  EXPECT_TRUE(log.has("child normal exit, ret=3\n"));
  EXPECT_TRUE(hasLine(5, "unit transcode error on resId(sw_cpu)\n"));
  EXPECT_TRUE(hasLine(5, "keep trying the next resource transcode\n"));
  EXPECT_TRUE(hasLine(2, "all resource transcode fail\n"));
  // The first failed profile ends the job.
  EXPECT_FALSE(log.hasPart("mobile360p"));
}

TEST_F(JobRunner, ARetryReusesWhatIsInPlaceAndForgetsTheFailure) {
  const std::string source = clip("film.mp4");
  world.setEncoder(
      "case \"$*\" in *scale=480:360*) echo no >&2; exit 1 ;; esac\nexec ffmpeg \"$@\"\n");
  const KxDBTaskParam failed = world.run(source, PROFILE_240P | PROFILE_360P);
  expectFailed(failed, "mobile360p: sw_cpu: ");
  struct stat first;
  ASSERT_EQ(stat(result("film.mp4.mobile240p.mp4").c_str(), &first), 0);
  world.setEncoder("exec ffmpeg \"$@\"\n");
  expectDone(world.runAgain(failed));
  struct stat second;
  ASSERT_EQ(stat(result("film.mp4.mobile240p.mp4").c_str(), &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino);
  EXPECT_TRUE(fs::exists(result("film.mp4.mobile360p.mp4")));
}

TEST_F(JobRunner, AnotherVersionOfTheSourceIsTranscodedAgain) {
  const std::string source = clip("film.mp4");
  expectDone(world.run(source, PROFILE_240P | PROFILE_AUDIO));
  clip("film.mp4", 160, 120, 3);
  setModified(source, 1200000000);
  expectDone(world.run(source, PROFILE_240P | PROFILE_AUDIO));
  EXPECT_TRUE(hasLine(4, "mTime of \"" + source + "\" and \"" + result("film.mp4.mobile240p.mp4") +
                             "\" are not same, we remove it and reTranscode\n"));
  EXPECT_NEAR(probe(result("film.mp4.mobile240p.mp4"))->seconds, 3, 0.2);
  EXPECT_NEAR(probe(world.media("Video2audio/film.mp3"))->seconds, 3, 0.2);
  EXPECT_EQ(modified(result("film.mp4.mobile240p.mp4")), 1200000000);
}

TEST_F(JobRunner, AnOlderResultSurvivesAFailedTry) {
  const std::string source = clip("film.mp4");
  expectDone(world.run(source, PROFILE_240P));
  const std::string before = readFile(result("film.mp4.mobile240p.mp4"));
  setModified(source, 1200000000);
  world.setEncoder("exit 1\n");
  expectFailed(world.run(source, PROFILE_240P), "the encoder ended with 1");
  EXPECT_EQ(readFile(result("film.mp4.mobile240p.mp4")), before);
  EXPECT_TRUE(fs::is_symlink(world.media(".@__thumb/transcode/film.mp4.mobile240p")));
}

TEST_F(JobRunner, AResultThatDoesNotLastAsLongAsItsSourceIsAFailure) {
  const std::string source = clip("film.mp4", 160, 120, 5);
  world.setEncoder("exec ffmpeg -t 2 \"$@\"\n");
  expectFailed(world.run(source, PROFILE_240P),
               "sw_cpu: the picture of the result lasts 2.0 s, of the source 5.0 s");
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.mp4")));
}

TEST_F(JobRunner, ASoundThatFailsItsCheckIsNotPutInPlace) {
  const std::string source = clip("film.mp4", 160, 120, 4);
  const std::string findResult = "for out; do :; done\n";  // the encoder's last argument
  const std::pair<const char*, const char*> faults[] = {
      {"echo rubbish > \"$out\"\n", "the result cannot be opened"},
      {"exec ffmpeg -v error -y -f lavfi -i sine=d=1 \"$out\"\n",
       "the sound of the result lasts 1."},
      {"exec ffmpeg -v error -y -f lavfi -i color=s=32x32:d=4 -c:v libx264 -f mp4 \"$out\"\n",
       "the result has no sound"},
  };
  for (const auto& [encoder, reason] : faults) {
    world.setEncoder(findResult + encoder);
    expectFailed(world.run(source, PROFILE_AUDIO), reason);
    EXPECT_FALSE(fs::exists(world.media("Video2audio/film.mp3"))) << reason;
  }
}

TEST_F(JobRunner, ATruncatedSourceIsNeverReportedAsDone) {
  for (const std::string name : {"a.mp4", "b.mkv", "c.avi", "d.flv"}) {
    SCOPED_TRACE(name);
    std::vector<std::string> more;
    if (name == "a.mp4") more = {"-movflags", "+faststart"};
    if (name == "d.flv") more = {"-ar", "44100"};
    const std::string source = clip(name, 160, 120, 6, more);
    fs::resize_file(source, fs::file_size(source) / 2);
    const KxDBTaskParam row = world.run(source, PROFILE_240P);
    expectFailed(row, "source");
    EXPECT_FALSE(fs::exists(result(name + ".mobile240p.mp4")));
  }
}

TEST_F(JobRunner, AFileThatIsNoVideoFailsWithAReason) {
  writeFile(world.media("text.mp4"), "this is no video");
  expectFailed(world.run(world.media("text.mp4"), PROFILE_240P),
               "the source is not a media file that can be read");
  EXPECT_TRUE(hasLine(5, "mediainfo init fail"));
}

TEST_F(JobRunner, ASourceThatIsGoneFailsWithAReason) {
  const std::string source = clip("film.mp4");
  const KxDBTaskParam job = world.addJob(source, PROFILE_240P);
  fs::remove(source);
  expectFailed(world.runAgain(job), "the source cannot be read: No such file or directory");
}

TEST_F(JobRunner, ASourceThatChangesMeanwhileGivesNoResult) {
  const std::string source = clip("film.mp4");
  world.setEncoder("ffmpeg \"$@\" || exit 1\ntouch -d 2001-01-01 '" + source + "'\n");
  expectFailed(world.run(source, PROFILE_240P), "the source was changed meanwhile");
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.mp4")));
}

TEST_F(JobRunner, AFolderThatCannotBeMadeFailsTheJob) {
  const std::string source = clip("film.mp4");
  writeFile(world.media("@Transcode"), "a file");
  expectFailed(world.run(source, PROFILE_240P),
               "cannot create the folder " + world.media("@Transcode/"));
  EXPECT_TRUE(hasLine(2, "can not create transcode foloder " + world.media("@Transcode/") + "\n"));
}

TEST_F(JobRunner, AThumbFolderThatIsALinkIsRefused) {
  const std::string source = clip("film.mp4");
  TempDir elsewhere;
  fs::create_symlink(elsewhere.path(), world.media(".@__thumb"));
  expectFailed(world.run(source, PROFILE_240P), "cannot create the folder");
  EXPECT_TRUE(hasLine(5, "can not create transcode foloder " + world.media(".@__thumb/") + "\n"));
  EXPECT_TRUE(fs::is_empty(elsewhere.path()));
}

TEST_F(JobRunner, ATempFolderThatCannotBeMadeFailsTheJob) {
  const std::string source = clip("film.mp4");
  fs::create_directories(world.media(".@__thumb"));
  writeFile(world.media(".@__thumb/temp"), "a file");
  expectFailed(world.run(source, PROFILE_240P), "cannot create the folder");
  EXPECT_TRUE(
      hasLine(5, "can not create transcode temp foloder " + world.media(".@__thumb/temp/") + "\n"));
}

TEST_F(JobRunner, ASoundFolderThatCannotBeMadeFailsTheJob) {
  const std::string source = clip("film.mp4");
  writeFile(world.media("Video2audio"), "a file");
  expectFailed(world.run(source, PROFILE_AUDIO), "video2audio: cannot create the folder");
  EXPECT_TRUE(
      hasLine(5, "can not create music transcode foloder " + world.media("Video2audio/") + "\n"));
}

TEST_F(JobRunner, ATranscoderThatCannotBeSetUpFailsTheJob) {
  const std::string source = clip("film.mp4");
  // There is no place for work folders.
  fs::remove_all(world.root().path() + "/data");
  writeFile(world.root().path() + "/data", "a file");
  expectFailed(world.run(source, PROFILE_240P), "mobile240p: the transcoder could not be set up");
  EXPECT_TRUE(hasLine(2, "transcoder for " + source + " init fail\n"));
  expectFailed(world.run(source, PROFILE_AUDIO), "video2audio: the transcoder could not be set up");
  EXPECT_TRUE(hasLine(5, "musicTranscoder for " + source + " init fail\n"));
}

TEST_F(JobRunner, ASilentVideoGivesASilentResultButNoSound) {
  const std::string source = clip("film.mp4", 160, 120, 1, {"-an"});
  expectDone(world.run(source, PROFILE_240P));
  EXPECT_EQ(probe(result("film.mp4.mobile240p.mp4"))->audioCodec, "");
  expectFailed(world.run(source, PROFILE_AUDIO), "video2audio: the source has no audio");
}

TEST_F(JobRunner, AnAudioTrackThatIsNotThereFailsTheJob) {
  const std::string source = clip("film.mp4");
  for (const uint64_t profile : {PROFILE_240P, PROFILE_AUDIO}) {
    expectFailed(world.run(source, profile, [](KxDBTaskParam& job) { job.aid = 2; }),
                 "the source has no audio track 2, its last one is 0");
  }
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.mp4")));
}

TEST_F(JobRunner, AVideoTrackThatIsNotThereFailsTheProfile) {
  const std::string source = clip("film.mp4");
  KxDBTaskParam job = world.addJob(source, PROFILE_240P);
  job.vid = 4;
  expectFailed(world.runAgain(job),
               "mobile240p: the source has no video track 4, its last one is 0");
}

TEST_F(JobRunner, HostileNamesAreOnlyNames) {
  const std::string names[] = {"it's \"quoted\" $(touch x) `x`;&|.mp4",
                               "-vf.mp4",
                               "100%d %s.mp4",
                               "[a]:b,c=d\\e.mp4",
                               "Übersicht – тест 視頻.mp4",
                               "no utf-8 \xff\xe4.mp4",
                               "two\nlines.mp4"};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::string plain = clip("plain.mp4");
    fs::rename(plain, world.media(name));
    const KxDBTaskParam row = world.run(world.media(name), PROFILE_240P | PROFILE_AUDIO);
    expectDone(row);
    EXPECT_TRUE(fs::is_regular_file(kxJobOutputs(row)[0].path));
    EXPECT_TRUE(fs::is_regular_file(kxJobOutputs(row)[1].path));
  }
}

// --- rotation

TEST_F(JobRunner, APhoneVideoComesOutUprightWithoutARotation) {
  clip("plain.mp4", 320, 180);
  const std::string source = world.media("phone.mp4");
  ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-i", world.media("plain.mp4"), "-c", "copy",
                   "-metadata:s:v", "rotate=90", source}));
  expectDone(world.run(source, PROFILE_240P | PROFILE_ORIGINAL));
  EXPECT_TRUE(log.hasPart("remux success, rename "));
  for (const char* profile : {"mobile240p", "original"}) {
    const auto probed = probe(result(std::string("phone.mp4.") + profile + ".mp4"));
    ASSERT_TRUE(probed);
    EXPECT_FALSE(probed->turned);
    EXPECT_NEAR(probed->width * probed->sar / probed->height, 9.0 / 16, 0.01);
    EXPECT_TRUE(hasIndexInFront(result(std::string("phone.mp4.") + profile + ".mp4")));
  }
}

TEST_F(JobRunner, ARotationThatIsAskedForIsInTheNameAndReplacesOtherOnes) {
  const std::string source = clip("film.mp4", 320, 180);
  expectDone(world.run(source, PROFILE_240P, [](KxDBTaskParam& job) { job.rotation = 90; }));
  const auto turned = probe(result("film.mp4.mobile240p.90.mp4"));
  ASSERT_TRUE(turned);
  EXPECT_LT(turned->width, turned->height);
  expectDone(world.run(source, PROFILE_240P, [](KxDBTaskParam& job) { job.rotation = 180; }));
  EXPECT_TRUE(
      hasLine(5, "rotation=180, so we remove " + result("film.mp4.mobile240p.90.mp4") + "\n"));
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.90.mp4")));
  EXPECT_EQ(fs::read_symlink(world.media(".@__thumb/transcode/film.mp4.mobile240p")),
            "../../@Transcode/film.mp4.mobile240p.180.mp4");
}

TEST_F(JobRunner, AFailedRemuxIsAFailureOfThatTry) {
  const std::string source = clip("film.mp4", 320, 180);
  world.setEncoder("case \"$*\" in *-map_metadata*) echo bad remux >&2; exit 5 ;; esac\n"
                   "exec ffmpeg \"$@\"\n");
  const KxDBTaskParam row =
      world.run(source, PROFILE_240P, [](KxDBTaskParam& job) { job.rotation = 90; });
  expectFailed(row, "mobile240p: sw_cpu: the remux ended with 5: bad remux");
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.90.mp4")));
}

// --- subtitles

class SubtitledJob : public JobRunner {
 protected:
  void writeSubtitle(const std::string& name) {
    writeFile(world.media(name), "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
  }
};

TEST_F(SubtitledJob, SubtitlesAreOnlySearchedWhenTheConfigurationSaysSo) {
  const std::string source = clip("film.mp4");
  writeSubtitle("film.srt");
  expectDone(world.run(source, PROFILE_240P));
  EXPECT_FALSE(log.hasPart("compare target=>"));
  world.configure("SUBTITLE=1\n");
  expectDone(world.run(source, PROFILE_360P));
  EXPECT_TRUE(hasLine(5, "auto search subtitle => " + world.media("film.srt") + "\n"));
  EXPECT_TRUE(log.hasPart("subtitles=filename="));
}

TEST_F(SubtitledJob, ASubtitleThatTheJobNamesIsBurntIn) {
  const std::string source = clip("film.mp4");
  expectDone(world.run(source, PROFILE_240P));
  writeSubtitle("it's; [mine], 100%.srt");
  const std::string plain = readFile(result("film.mp4.mobile240p.mp4"));
  fs::remove(result("film.mp4.mobile240p.mp4"));
  world.configure("SUBTITLE=1\n");
  expectDone(world.run(source, PROFILE_240P, [&](KxDBTaskParam& job) {
    job.subtitle = world.media("it's; [mine], 100%.srt");
  }));
  EXPECT_FALSE(log.hasPart("compare target=>"));
  EXPECT_NE(readFile(result("film.mp4.mobile240p.mp4")), plain);
}

TEST_F(SubtitledJob, ASubtitleThatIsNoFileFailsTheJob) {
  const std::string source = clip("film.mp4");
  writeSubtitle("real.srt");
  fs::create_symlink("real.srt", world.media("link.srt"));
  for (const char* name : {"absent.srt", "link.srt", "."}) {
    expectFailed(world.run(source, PROFILE_240P,
                           [&](KxDBTaskParam& job) { job.subtitle = world.media(name); }),
                 "the subtitle is no file");
  }
}

// --- several resources

class CardJob : public JobRunner {
 protected:
  CardJob() { world.setCards({"gpu0:maker:model:external:1"}); }
  // The agent's result is its last "-o".
  static constexpr const char* kFindOutput =
      "while [ $# -gt 0 ]; do [ \"$1\" = -o ] && out=$2; shift; done\n";
};

TEST_F(CardJob, TheCardIsUsedBeforeTheCpu) {
  const std::string source = clip("film.mp4");
  world.setAgent(std::string(kFindOutput) + "exec ffmpeg -v error -y -i '" + source +
                 "' -s 320x240 -c:v libx264 -c:a aac \"$out\"\n");
  expectDone(world.run(source, PROFILE_240P));
  EXPECT_TRUE(hasLine(5, "resId(gpu0) transcode success\n"));
  EXPECT_FALSE(log.hasPart("sw_cpu) transcode"));
}

TEST_F(CardJob, WhenTheCardFailsTheCpuIsTried) {
  const std::string source = clip("film.mp4");
  world.setAgent("echo no such encoder >&2\nexit 9\n");
  expectDone(world.run(source, PROFILE_240P),
             "gpu0: the encoder ended with 9: no such encoder; done by sw_cpu");
  EXPECT_TRUE(hasLine(5, "unit transcode error on resId(gpu0)\n"));
  EXPECT_TRUE(hasLine(5, "keep trying the next resource transcode\n"));
  EXPECT_TRUE(hasLine(5, "resId(sw_cpu) transcode success\n"));
}

TEST_F(CardJob, TheLogTellsOfAFailedCardInOrder) {
  const std::string source = clip("film.mp4");
  world.setAgent("exit 9\n");
  expectDone(world.run(source, PROFILE_240P), "gpu0: the encoder ended with 9; done by sw_cpu");
  const std::vector<std::string> wanted = {"set reg to transcodeunit\n",
                                           "child normal exit, ret=9\n",
                                           "unit transcode error on resId(gpu0)\n",
                                           "keep trying the next resource transcode\n",
                                           "set reg to transcodeunit\n",
                                           "child normal exit, ret=0\n",
                                           "resId(sw_cpu) transcode success\n"};
  std::vector<std::string> seen;
  for (const std::string& text : log.texts())
    if (std::ranges::find(wanted, text) != wanted.end()) seen.push_back(text);
  EXPECT_EQ(seen, wanted);
}

TEST_F(CardJob, ACardThatIsGoneFromTheListIsPassedOver) {
  const std::string source = clip("film.mp4");
  world.setCards({"gpu0:maker:model:external:1", "gpu1:maker:model:external:1"});
  world.setAgent("touch '" + world.media("begun") + "'\nuntil [ -e '" + world.media("noticed") +
                 "' ]; do sleep 0.02; done\nexit 9\n");
  const KxDBTaskParam job = world.addJob(source, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(world.media("begun")); }));
  // Somebody else notices that the cards are gone, the busy one too.
  world.setCards({});
  EXPECT_EQ(KxResMgr2::getInstance()->getResVec().size(), 1u);
  writeFile(world.media("noticed"), "");
  ASSERT_TRUE(world.waitForUnits());
  const std::string reason = world.reason(job.id);
  expectDone(world.row(job.id), reason);
  EXPECT_NE(reason.find("the encoder ended with 9; gpu"), std::string::npos) << reason;
  EXPECT_NE(reason.find(": cannot be used; done by sw_cpu"), std::string::npos) << reason;
  EXPECT_TRUE(hasLine(5, "KxResMgr unRegister resource fail\n"));
  EXPECT_TRUE(hasLine(5, "KxResMgr register resource fail\n"));
}

TEST_F(CardJob, WhyTheCardWasLeftIsKeptWhileTheJobGoesOn) {
  const std::string source = clip("film.mp4", 160, 120, 20);
  world.setAgent("echo no such encoder >&2\nexit 9\n");
  world.setEncoder(kSlowEncoder);
  const KxDBTaskParam job = world.addJob(source, PROFILE_240P);
  world.start(job);
  EXPECT_TRUE(waitUntil(
      [&] { return world.reason(job.id) == "gpu0: the encoder ended with 9: no such encoder"; }));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.reason(job.id), "");
}

TEST_F(CardJob, AResultThatFailsItsCheckCountsAsTheCardsFailure) {
  const std::string source = clip("film.mp4", 160, 120, 3);
  world.setAgent(std::string(kFindOutput) + "echo rubbish > \"$out\"\n");
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  expectDone(row, world.reason(row.id));
  EXPECT_TRUE(world.reason(row.id).starts_with("gpu0: ")) << world.reason(row.id);
  EXPECT_TRUE(hasLine(5, "unit transcode error on resId(gpu0)\n"));
  EXPECT_NEAR(probe(result("film.mp4.mobile240p.mp4"))->seconds, 3, 0.2);
}

TEST_F(CardJob, AChildWithoutProgressIsStoppedAndTheNextResourceTried) {
  const std::string source = clip("film.mp4");
  world.configure("STALL_SEC=1\n");
  world.setAgent("exec sleep 600\n");
  const auto begin = steady_clock::now();
  expectDone(world.run(source, PROFILE_240P), "gpu0: the encoder made no progress; done by sw_cpu");
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(15));
  EXPECT_TRUE(log.hasPart("made no progress for 1 seconds, so we kill it\n"));
  EXPECT_TRUE(hasLine(5, "unit transcode error on resId(gpu0)\n"));
}

TEST_F(CardJob, AChildThatGoesOnWritingIsNotStalled) {
  const std::string source = clip("film.mp4", 160, 120, 4);
  world.configure("STALL_SEC=2\n");
  world.setCards({});
  world.setEncoder(kSlowEncoder);
  expectDone(world.run(source, PROFILE_240P));
  EXPECT_FALSE(log.hasPart("made no progress"));
}

TEST_F(CardJob, EveryReasonIsKeptWhenAllResourcesFail) {
  const std::string source = clip("film.mp4");
  world.setAgent("echo no card >&2\nexit 9\n");
  world.setEncoder("echo no cpu >&2\nexit 8\n");
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(world.reason(row.id), "mobile240p: gpu0: the encoder ended with 9: no card; "
                                  "sw_cpu: the encoder ended with 8: no cpu");
  EXPECT_TRUE(hasLine(2, "all resource transcode fail\n"));
}

TEST_F(CardJob, SoundOfAPhoneIsMadeWholeOnTheCpu) {
  const std::string source = world.media("phone.mkv");
  ASSERT_TRUE(kxtest::makePhoneClip(source, 4));
  world.useFrontEnd();
  expectDone(world.run(source, PROFILE_240P | PROFILE_360P | PROFILE_AUDIO),
             "gpu0: only the CPU's encoder reads the sound of this source; done by sw_cpu");
  for (const char* name : {"@Transcode/phone.mkv.mobile240p.mp4",
                           "@Transcode/phone.mkv.mobile360p.mp4", "Video2audio/phone.mp3"}) {
    // What is decoded, without the times that could hide that most of it is missing.
    const std::string sound = world.media("sound.wav");
    ASSERT_TRUE(kxtest::run({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", world.media(name),
                             "-vn", "-af", "asetpts=N/SR/TB", sound}));
    EXPECT_NEAR(std::stod(kxtest::run({"ffprobe", "-v", "error", "-show_entries", "format=duration",
                                       "-of", "csv=p=0", sound})
                              .value_or("0")),
                4, 0.2)
        << name;
  }
}

TEST_F(CardJob, ACardThatDisappearsWhileInUseIsLeftForTheCpu) {
  const std::string source = clip("film.mp4");
  world.setAgent("cat > '" + world.root().file("/sbin/accelctl") +
                 "' <<'EOF'\n#!/bin/sh\n[ \"$1\" = -q ] && echo count=0\nexit 0\nEOF\n"
                 "echo fell off the bus >&2\nexit 9\n");
  expectDone(world.run(source, PROFILE_240P | PROFILE_360P),
             "gpu0: the encoder ended with 9: fell off the bus; done by sw_cpu");
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(CardJob, TheNextCardComesBeforeTheCpu) {
  const std::string source = clip("film.mp4");
  world.setCards({"gpu0:maker:model:external:1", "gpu1:maker:model:external:1"});
  world.setAgent("mkdir '" + world.media("failed") + "' && exit 9\n" + std::string(kFindOutput) +
                 "exec ffmpeg -v error -y -i '" + source +
                 "' -s 320x240 -c:v libx264 -c:a aac \"$out\"\n");
  const KxDBTaskParam row = world.run(source, PROFILE_240P);
  EXPECT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  EXPECT_TRUE(log.hasPart("transcode error on resId(gpu"));
  EXPECT_TRUE(world.reason(row.id).find("; done by gpu") != std::string::npos)
      << world.reason(row.id);
}

TEST_F(CardJob, TwoCardsShareTheJobs) {
  world.setCards({"gpu0:maker:model:external:1", "gpu1:maker:model:external:1"});
  const std::string first = clip("first.mp4");
  const std::string second = clip("second.mp4");
  // Each waits for the other.
  world.setAgent("touch '" + world.media("at.") + "'$$\n" + "until [ $(ls '" + world.media("") +
                 "' | grep -c '^at') -ge 2 ]; do sleep 0.02; done\n" + std::string(kFindOutput) +
                 "exec ffmpeg -v error -y -i '" + first +
                 "' -s 320x240 -c:v libx264 -c:a aac \"$out\"\n");
  const KxDBTaskParam one = world.addJob(first, PROFILE_240P);
  const KxDBTaskParam two = world.addJob(second, PROFILE_240P);
  world.start(one);
  ASSERT_TRUE(world.waitForChild());
  world.start(two);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.row(one.id).status, JOB_DONE) << world.reason(one.id);
  EXPECT_EQ(world.row(two.id).status, JOB_DONE) << world.reason(two.id);
  EXPECT_TRUE(hasLine(5, "resId(gpu0) transcode success\n"));
  EXPECT_TRUE(hasLine(5, "resId(gpu1) transcode success\n"));
}

TEST_F(CardJob, JobsThatChooseAtTheSameInstantAreSpreadOverTheCards) {
  world.setCards({"gpu0:maker:model:external:1", "gpu1:maker:model:external:1"});
  // All of them learn of the cards at the same time.
  const std::string tool = world.root().file("/sbin/accelctl");
  writeFile(tool, "#!/bin/sh\n[ \"$1\" = -l ] && sleep 0.3\n" + readFile(tool));
  constexpr int kJobs = 4;
  const std::string first = clip("0.mp4");
  // Each waits for the others.
  world.setAgent("touch '" + world.media("at.") + "'$$\n" + "until [ $(ls '" + world.media("") +
                 "' | grep -c '^at') -ge " + std::to_string(kJobs) + " ]; do sleep 0.02; done\n" +
                 kFindOutput + "exec ffmpeg -v error -y -i '" + first +
                 "' -s 320x240 -c:v libx264 -c:a aac \"$out\"\n");
  std::vector<KxDBTaskParam> jobs;
  jobs.reserve(kJobs);
  for (int i = 0; i < kJobs; ++i)
    jobs.push_back(world.addJob(clip(std::to_string(i) + ".mp4"), PROFILE_240P));
  for (const KxDBTaskParam& job : jobs) world.start(job);
  ASSERT_TRUE(world.waitForUnits());
  for (const KxDBTaskParam& job : jobs)
    EXPECT_EQ(world.row(job.id).status, JOB_DONE) << world.reason(job.id);
  EXPECT_EQ(log.count("resId(gpu0) transcode success\n"), kJobs / 2);
  EXPECT_EQ(log.count("resId(gpu1) transcode success\n"), kJobs / 2);
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(CardJob, TheShippedAgentEncodesAndShowsItsProgress) {
  const std::string source = clip("film.mp4", 160, 120, 5);
  const std::string tools = std::string(KX_BUILD_DIR) + "/tools/";
  const std::string programs = world.root().file("/usr/local/medialibrary/bin/");
  for (const char* program : {"transcode_agent", "xlogparse.sh"})
    fs::copy_file(tools + program, programs + program, fs::copy_options::overwrite_existing);
  setenv("KX_AGENT_ENCODER", "libx264", 1);
  world.setEncoder(kSlowEncoder);
  const KxDBTaskParam job = world.addJob(source, PROFILE_240P);
  world.start(job);
  int last = 0;
  int steps = 0;
  EXPECT_TRUE(waitUntil([&] {
    const auto unit = world.unit();
    if (!unit || unit->getState() != UNIT_START) return true;
    EXPECT_TRUE(unit->getReg().m_resId == "gpu0" || unit->getReg().isEmpty);
    const int progress = unit->getProgress();
    if (progress > last) ++steps;
    last = std::max(last, progress);
    return false;
  }));
  unsetenv("KX_AGENT_ENCODER");
  ASSERT_TRUE(world.waitForUnits());
  expectDone(world.row(job.id));
  EXPECT_GE(steps, 3);
  EXPECT_TRUE(hasLine(5, "resId(gpu0) transcode success\n"));
  EXPECT_EQ(probe(result("film.mp4.mobile240p.mp4"))->videoCodec, "h264");
}

// --- stop, suspension and what others see

class RunningJob : public JobRunner {
 protected:
  // Starts a job that takes half a minute and waits for its encoder.
  void begin(uint64_t profiles = PROFILE_240P, const std::string& encoder = kSlowEncoder) {
    const std::string source = clip("film.mp4", 160, 120, 30);
    world.setEncoder(encoder);
    job = world.addJob(source, profiles);
    world.start(job);
    ASSERT_TRUE(world.waitForChild());
    child = world.unit()->getPid();
  }
  void expectEndWithinASecond(const std::function<void()>& act) {
    const int before = world.runsEnded();
    const auto asked = steady_clock::now();
    act();
    EXPECT_TRUE(waitUntil([&] { return world.runsEnded() > before; }));
    EXPECT_LT(steady_clock::now() - asked, std::chrono::milliseconds(1000));
    EXPECT_FALSE(isAlive(child));
  }

  KxDBTaskParam job;
  int child = -1;
};

TEST_F(RunningJob, AStopEndsTheEncoderWithinASecondAndTheJobWaitsAgain) {
  begin();
  expectEndWithinASecond([this] { world.stop(job.id); });
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
  EXPECT_TRUE(hasLine(5, "someone stop the transcode unit, so we need to kill pid " +
                             std::to_string(child) + "\n"));
  EXPECT_TRUE(hasLine(5, "someone stop this unit transcode\n"));
  EXPECT_TRUE(hasLine(5, "someone stop this transcode unit\n"));
  EXPECT_FALSE(log.hasPart("keep trying"));
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.mp4")));
}

TEST_F(RunningJob, ARunWhoseRowIsGoneLeavesTheNextOwnerOfItsIdAlone) {
  begin();
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  const std::string id = std::to_string(job.id);
  store->mutexLock();
  EXPECT_EQ(store->exec("UPDATE JobTable SET SrcPath = '/other.mp4', Status = 1, DateFinish = 77 "
                        "WHERE Id = " +
                        id),
            0);
  store->mutexUnLock();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.row(job.id).status, JOB_DONE);
  EXPECT_EQ(world.row(job.id).dateFinish, 77);
}

TEST_F(RunningJob, AnEncoderThatIgnoresTheSignalIsKilled) {
  const std::string ready = world.media("ready");
  begin(PROFILE_240P, "trap '' TERM\ntouch '" + ready + "'\nwhile :; do sleep 0.05; done\n");
  ASSERT_TRUE(waitUntil([&] { return fs::exists(ready); }));
  expectEndWithinASecond([this] { world.stop(job.id); });
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
  EXPECT_TRUE(log.has("child exit by receive signal, signal=9\n"));
}

TEST_F(RunningJob, AStopReachesTheSoundEncoderToo) {
  begin(PROFILE_AUDIO);
  expectEndWithinASecond([this] { world.stop(job.id); });
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
  EXPECT_FALSE(fs::exists(world.media("Video2audio/film.mp3")));
}

TEST_F(RunningJob, AStopReachesTheRemuxToo) {
  const std::string source = clip("film.mp4");
  world.setEncoder("case \"$*\" in *-map_metadata*) touch '" + world.media("remuxes") +
                   "'; exec sleep 600 ;; esac\nexec ffmpeg \"$@\"\n");
  job = world.addJob(source, PROFILE_240P, [](KxDBTaskParam& row) { row.rotation = 90; });
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(world.media("remuxes")); }));
  child = world.unit()->getPid();
  expectEndWithinASecond([this] { world.stop(job.id); });
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
  EXPECT_FALSE(fs::exists(result("film.mp4.mobile240p.90.mp4")));
}

TEST_F(RunningJob, AStopReachesTheAgentAndWhatItStarted) {
  world.setCards({"gpu0:maker:model:external:1"});
  world.setAgent("trap '' TERM\nsleep 600 &\necho $! > '" + world.media("started") + "'\nwait\n");
  begin();
  ASSERT_TRUE(waitUntil([&] { return readFile(world.media("started")).ends_with("\n"); }));
  const pid_t helper = atoi(readFile(world.media("started")).c_str());
  expectEndWithinASecond([this] { world.stop(job.id); });
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
  EXPECT_TRUE(waitUntil([&] {
    const std::string state = readFile("/proc/" + std::to_string(helper) + "/status");
    return state.empty() || state.find("State:\tZ") != std::string::npos;
  }));
  EXPECT_FALSE(log.hasPart("keep trying"));
}

TEST_F(RunningJob, AStopActsWhileTheProgressIsAskedFor) {
  const std::string asked = world.media("asked");
  world.setParser("touch '" + asked + "'\nexec sleep 600\n");
  begin();
  ASSERT_TRUE(waitUntil([&] { return fs::exists(asked); }));
  expectEndWithinASecond([this] { world.stop(job.id); });
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
  EXPECT_THAT(childPrograms(), testing::IsEmpty());
}

TEST_F(RunningJob, AStopActsWhileTheCardsAreLookedFor) {
  const std::string source = clip("film.mp4");
  const std::string asked = world.media("asked");
  const std::string tool = readFile(world.root().file("/sbin/accelctl"));
  world.root().script("/sbin/accelctl", "touch '" + asked + "'\nexec sleep 600\n");
  job = world.addJob(source, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(asked); }));
  const auto begin = steady_clock::now();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_TRUE(waitUntil([] { return childPrograms().empty(); }, std::chrono::seconds(2)));
  writeFile(world.root().file("/sbin/accelctl"), tool);
  expectWaiting(world.row(job.id));
}

TEST_F(RunningJob, AStopActsWhileTheEncoderIsAskedWhatItCan) {
  const std::string source = clip("film.mp4");
  const std::string asked = world.media("asked");
  world.root().script("/usr/local/medialibrary/bin/ffmpeg",
                      "touch '" + asked + "'\nexec sleep 600\n");
  job = world.addJob(source, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(asked); }));
  const auto begin = steady_clock::now();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(1));
  expectWaiting(world.row(job.id));
  EXPECT_THAT(childPrograms(), testing::IsEmpty());
  // It was not taken at its word.
  world.setEncoder("exec ffmpeg \"$@\"\n");
  expectDone(world.runAgain(job));
}

TEST_F(RunningJob, AnOutcomeThatCannotBeWrittenIsLogged) {
  begin();
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  store->mutexLock();
  EXPECT_EQ(store->exec("ALTER TABLE JobTable RENAME TO Elsewhere"), 0);
  store->mutexUnLock();
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_TRUE(hasLine(5, "update job dateStart fail\n"));
  EXPECT_TRUE(hasLine(5, "updateDBJobDateFinish fail\n"));
  EXPECT_TRUE(hasLine(5, "updateDBJobStatus fail\n"));
}

TEST_F(RunningJob, ASuspendedJobLeavesItsRowUntouchedAndIsResumed) {
  begin();
  const KxDBTaskParam before = world.row(job.id);
  expectEndWithinASecond([this] { world.pending(job); });
  EXPECT_TRUE(hasLine(
      5, "KxTranscodeUnit status has been set as pending, in order to keep the DB record for UI "
         "query, we do not update DB. The KxTranscodeUnit will be reinvoked when status set to "
         "start.The KxTranscodeUnit will update DB when status set to stop.\n"));
  const KxDBTaskParam after = world.row(job.id);
  EXPECT_EQ(after.status, JOB_RUNNING);
  EXPECT_EQ(after.dateStart, before.dateStart);
  EXPECT_EQ(after.dateFinish, before.dateFinish);
  expectNothingLeft();
  EXPECT_EQ(world.unit()->getState(), UNIT_PENDING);
  world.setEncoder("exec ffmpeg \"$@\"\n");
  world.resume(job);
  ASSERT_TRUE(world.waitForUnits());
  expectDone(world.row(job.id));
  EXPECT_NEAR(probe(result("film.mp4.mobile240p.mp4"))->seconds, 30, 0.6);
}

TEST_F(RunningJob, ASuspendedJobThatIsStoppedWaitsAgain) {
  begin();
  world.pending(job);
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
}

TEST_F(RunningJob, AQuickSuspendAndResumeKeepsOneEncoder) {
  begin();
  world.pending(job);
  world.setEncoder("exec ffmpeg \"$@\"\n");
  world.resume(job);
  ASSERT_TRUE(world.waitForUnits());
  expectDone(world.row(job.id));
  EXPECT_FALSE(isAlive(child));
}

TEST_F(RunningJob, TheUnitShowsItsChildItsRegistrationAndItsProgress) {
  begin();
  EXPECT_TRUE(isAlive(child));
  EXPECT_TRUE(waitUntil([&] { return world.unit()->getProgress() == 50; }));
  const KxRegister reg = world.unit()->getReg();
  EXPECT_FALSE(reg.isEmpty);
  EXPECT_EQ(reg.m_resId, "sw_cpu");
  EXPECT_EQ(reg.m_jobType, REGJOB_UNIT);
  EXPECT_EQ(reg.regInfo.m_srcPath, job.src);
  EXPECT_EQ(reg.regInfo.m_srcWidth, 160);
  EXPECT_EQ(reg.regInfo.m_srcHeight, 120);
  EXPECT_EQ(reg.regInfo.m_pid, getpid());
  EXPECT_EQ(reg.regInfo.m_configMask, PROFILE_240P);
  EXPECT_EQ(world.registrations(), 1u);
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  EXPECT_EQ(world.registrations(), 0u);
}

TEST_F(RunningJob, NoProgressIsAskedForWhileAShortJobRuns) {
  world.setParser("touch '" + world.media("asked") + "'\nexit 1\n");
  expectDone(world.run(clip("film.mp4"), PROFILE_240P));
  EXPECT_FALSE(fs::exists(world.media("asked")));
}

TEST_F(RunningJob, TwoJobsRunSideBySideAndOneIsStopped) {
  begin();
  const KxDBTaskParam other = world.addJob(clip("other.mp4"), PROFILE_240P);
  world.start(other);
  ASSERT_TRUE(waitUntil([&] { return world.row(other.id).status == JOB_DONE; }));
  EXPECT_TRUE(isAlive(child));
  world.stop(job.id);
  ASSERT_TRUE(world.waitForUnits());
  expectWaiting(world.row(job.id));
}

// --- the thread routine itself

TEST_F(JobRunner, AThreadWithoutAUnitEndsAtOnce) {
  EXPECT_EQ(unitBGTranscodeThread(nullptr), nullptr);
  EXPECT_TRUE(hasLine(5, "no KxTranscodeUnit object\n"));
}

TEST_F(JobRunner, AnEmptyJobEndsWithoutTouchingTheStore) {
  KxTranscodeUnit2 unit;
  unitBGTranscodeThread(&unit);
  EXPECT_TRUE(hasLine(5, "DBTask is empty\n"));
  EXPECT_FALSE(log.hasPart("skip config"));
}
