// The service as people run it: xcoded on a private root, xcodectl, real clips and the encoder.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <nlohmann/json.hpp>

#include "KxDBTask.h"
#include "frame/ChildProcess.h"
#include "frame/UniqueFd.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::waitUntil;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr auto kLong = seconds(60);

std::string program(const std::string& name) {
  return KX_BUILD_DIR "/bin/" + name;
}

double secondsOf(const std::string& video) {
  const auto text = kxtest::run({"ffprobe", "-v", "error", "-show_entries", "format=duration",
                                 "-of", "csv=p=0", "file:" + video});
  return text ? atof(text->c_str()) : 0;
}

// A folder that is seen at a second place, as a volume is, while this lives.
class Volume {
 public:
  Volume(std::string source, std::string target)
      : m_source(std::move(source)), m_target(std::move(target)), m_isMounted(mountAgain()) {}
  Volume(const Volume&) = delete;
  Volume& operator=(const Volume&) = delete;
  ~Volume() { umount2(m_target.c_str(), MNT_DETACH); }
  bool isMounted() const { return m_isMounted; }
  bool mountAgain() const {
    return mount(m_source.c_str(), m_target.c_str(), nullptr, MS_BIND, nullptr) == 0;
  }

 private:
  const std::string m_source;
  const std::string m_target;
  const bool m_isMounted;
};

class WatchSystem : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kxtest::run({KX_SOURCE_DIR "/scripts/stage-root", root(), KX_BUILD_DIR}));
    configure("SETTLE_SEC = 1\n");
    fs::create_directory(media("in"));
    kxtest::makeClip(m_clip, 160, 120, 2);
    start();
  }
  void TearDown() override {
    stop();
    if (HasFailure()) fputs(kxtest::readFile(m_dir / "log").c_str(), stderr);
  }

  std::string root() const { return m_dir / "root"; }
  std::string media(const std::string& name) const { return m_media / name; }
  std::string result(const std::string& name) const {
    const fs::path path = media(name);
    return path.parent_path() / "@Transcode" / (path.filename().string() + ".mobile240p.mp4");
  }
  // Puts lines in front of the others of the service's section.
  void configure(const std::string& lines) {
    const std::string file = root() + "/etc/config/medialibrary.conf";
    std::string text = kxtest::readFile(file);
    const std::string section = "[TRANSCODESVR]\n";
    const size_t at = text.find(section);
    ASSERT_NE(at, std::string::npos);
    kxtest::writeFile(file, text.insert(at + section.size(), "MIN_FREE_MB = 0\n" + lines));
  }

  void start() {
    ChildProcess::Options options;
    options.stderrFile = m_dir / "log";
    m_daemon = ChildProcess::spawn(
        {program("xcoded"), "--foreground", "--root", root(), "--socket", socket()}, options);
    ASSERT_TRUE(waitUntil([this] { return ctl({"status"}).has_value(); }));
    ASSERT_TRUE(waitUntil([this] { return status().value("notify", false); }));
  }
  void stop() {
    if (!m_daemon.valid()) return;
    EXPECT_EQ(m_daemon.terminate(seconds(30)), 0) << "the service ends in good order";
    m_daemon = {};
  }
  std::string socket() const { return m_dir / "s"; }
  std::optional<std::string> ctl(std::vector<std::string> words) const {
    std::vector<std::string> argv = {program("xcodectl"), "--json", "--socket", socket()};
    argv.insert(argv.end(), words.begin(), words.end());
    return kxtest::run(argv);
  }
  // What a request that is refused says, with its exit status.
  std::string refusal(std::vector<std::string> words) const {
    std::vector<std::string> argv = {
        "/bin/sh",  "-c",    "exec 2>&1; \"$@\"; echo \"exit $?\"", "sh", program("xcodectl"),
        "--socket", socket()};
    argv.insert(argv.end(), words.begin(), words.end());
    return kxtest::run(argv).value_or("");
  }
  json status() const {
    const auto text = ctl({"folder", "list"});
    return text ? json::parse(*text) : json::object();
  }
  void watch(const std::string& name) const {
    ASSERT_TRUE(ctl({"folder", "add", media(name), "--profile", "mobile240p"}));
  }
  json jobs() const {
    const auto text = ctl({"list"});
    return text ? json::parse(*text).at("jobs") : json::array();
  }
  // Number of jobs of a file in a state; -1: in any.
  int count(const std::string& name, int state = -1) const {
    int found = 0;
    for (const json& job : jobs())
      if (job.at("src") == media(name) && (state == -1 || job.at("status") == state)) ++found;
    return found;
  }
  // What keeps the job of a file waiting, as its owner is told.
  std::string waitsFor(const std::string& name) const {
    for (const json& job : jobs()) {
      if (job.at("src") != media(name)) continue;
      const auto text = ctl({"show", std::to_string(job.at("id").get<int64_t>())});
      return text ? json::parse(*text).value("waitsFor", "") : "";
    }
    return "";
  }
  // Nothing waits or runs, and exactly one job of the file has succeeded and none failed.
  bool isDoneOnce(const std::string& name) const {
    const bool isDone = waitUntil(
        [&] {
          const json all = jobs();
          bool isAtRest = !all.empty();
          for (const json& job : all)
            isAtRest &= job.at("status") != JOB_WAITING && job.at("status") != JOB_RUNNING;
          return isAtRest;
        },
        kLong);
    EXPECT_EQ(count(name), 1) << jobs().dump(1);
    EXPECT_EQ(count(name, JOB_DONE), 1);
    return isDone && !HasFailure();
  }
  // Makes encoders wait for release().
  void holdEncoders() {
    const std::string encoder = root() + "/usr/local/medialibrary/bin/ffmpeg";
    fs::rename(encoder, encoder + ".real");
    // Questions about what it can do are answered.
    kxtest::writeFile(encoder, "#!/bin/sh\ncase \" $* \" in *\" -i \"*)\n  while [ ! -e '" +
                                   (m_dir / "go") + "' ]; do sleep 0.02; done;;\nesac\nexec '" +
                                   encoder + ".real' \"$@\"\n");
    fs::permissions(encoder, fs::perms(0755));
  }
  void release() const { kxtest::writeFile(m_dir / "go", ""); }
  void append(const std::string& name, const std::string& bytes) const {
    const UniqueFd fd(open(media(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    ASSERT_EQ(write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // What a person sees in that time: no result, and no job that runs or has run.
  void expectNothingFor(const std::string& name, milliseconds time) const {
    const bool isStarted = waitUntil(
        [&] { return count(name, JOB_WAITING) != count(name) || fs::exists(result(name)); }, time);
    EXPECT_FALSE(isStarted) << jobs().dump(1);
  }

  kxtest::TempDir m_dir;
  kxtest::TempDir m_media;
  const std::string m_clip = m_dir / "clip.mp4";
  ChildProcess m_daemon;
};

}  // namespace

TEST_F(WatchSystem, AVideoCopiedIntoAWatchedFolderIsTranscoded) {
  watch("in");
  EXPECT_EQ(status().at("folders").at(0).at("state"), "watched");
  fs::copy_file(m_clip, media("in/a.mp4"));
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  EXPECT_NEAR(secondsOf(result("in/a.mp4")), 2, 0.5);
  // The result is no source, however often the folder is looked through.
  ASSERT_TRUE(ctl({"scan"}));
  ASSERT_TRUE(waitUntil([this] { return status().at("queuedScans") == 0; }));
  EXPECT_EQ(jobs().size(), 1U);
}

TEST_F(WatchSystem, AWriterThatPausesForSecondsGivesOneResultOfTheWholeFile) {
  watch("in");
  const std::string bytes = kxtest::readFile(m_clip);
  {
    const UniqueFd fd(
        open(media("in/a.mp4").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    ASSERT_GT(write(fd.get(), bytes.data(), bytes.size() / 2), 0);
    // Even a scan that finds the half of it does not make it run.
    ASSERT_TRUE(ctl({"scan"}));
    ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4") == 1; }));
    expectNothingFor("in/a.mp4", seconds(4));
    EXPECT_EQ(waitsFor("in/a.mp4"), "its source to be complete");
    ASSERT_GT(write(fd.get(), bytes.data() + bytes.size() / 2, bytes.size() - bytes.size() / 2), 0);
  }
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  EXPECT_NEAR(secondsOf(result("in/a.mp4")), 2, 0.5);
}

TEST_F(WatchSystem, AFileAllocatedInAdvanceGivesOneResultOfTheWholeFile) {
  watch("in");
  const std::string bytes = kxtest::readFile(m_clip);
  {
    const UniqueFd fd(
        open(media("in/a.mp4").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    ASSERT_EQ(ftruncate(fd.get(), static_cast<off_t>(bytes.size())), 0);
    ASSERT_TRUE(ctl({"scan"}));
    ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4") == 1; }));
    expectNothingFor("in/a.mp4", seconds(3));
    ASSERT_GT(write(fd.get(), bytes.data(), bytes.size()), 0);
  }
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  EXPECT_NEAR(secondsOf(result("in/a.mp4")), 2, 0.5);
}

TEST_F(WatchSystem, ACopyThatOpensAndClosesTheFileManyTimesGivesOneResult) {
  // Long enough for this test to come to its next part in time.
  stop();
  configure("SETTLE_SEC = 5\n");
  start();
  watch("in");
  const std::string bytes = kxtest::readFile(m_clip);
  const size_t part = bytes.size() / 6 + 1;
  for (size_t at = 0; at < bytes.size(); at += part) {
    append("in/a.mp4", bytes.substr(at, part));
    expectNothingFor("in/a.mp4", milliseconds(450));
  }
  EXPECT_GT(count("in/a.mp4"), 1) << "each close is noticed";
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  EXPECT_NEAR(secondsOf(result("in/a.mp4")), 2, 0.5);
}

TEST_F(WatchSystem, ACopyThroughATemporaryNameGivesOneResult) {
  watch("in");
  const std::string bytes = kxtest::readFile(m_clip);
  append("in/tmp.mp4", bytes.substr(0, bytes.size() / 2));
  append("in/.part.Xy1", bytes);
  append("in/tmp.mp4", bytes.substr(bytes.size() / 2));
  fs::rename(media("in/tmp.mp4"), media("in/a.mp4"));
  fs::rename(media("in/.part.Xy1"), media("in/b.mp4"));
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  ASSERT_TRUE(isDoneOnce("in/b.mp4"));
  EXPECT_EQ(jobs().size(), 2U);
  EXPECT_FALSE(fs::exists(result("in/tmp.mp4")));
}

TEST_F(WatchSystem, ACopyThatKeepsTimesIsKnownToTheNextScan) {
  watch("in");
  fs::copy_file(m_clip, media("in/a.mp4"));
  fs::last_write_time(media("in/a.mp4"), fs::file_time_type::clock::now() - std::chrono::hours(50));
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  ASSERT_TRUE(ctl({"scan"}));
  ASSERT_TRUE(waitUntil([this] {
    const json now = status();
    return now.at("queuedScans") == 0 && now.at("scanning").get<std::string>().empty();
  }));
  EXPECT_EQ(count("in/a.mp4"), 1);
}

TEST_F(WatchSystem, ASourceThatChangesWhileItsJobRunsIsDoneAgain) {
  holdEncoders();
  watch("in");
  fs::copy_file(m_clip, media("in/a.mp4"));
  ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4", JOB_RUNNING) == 1; }));
  const std::string longer = m_dir / "longer.mp4";
  kxtest::makeClip(longer, 160, 120, 6);
  fs::copy_file(longer, media("in/a.mp4"), fs::copy_options::overwrite_existing);
  ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4") == 2; }));
  // The run that works on what is no longer there ends, and one job is left.
  ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4") == 1; }));
  release();
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  EXPECT_NEAR(secondsOf(result("in/a.mp4")), 6, 0.5);
}

TEST_F(WatchSystem, AFileThatLeavesStopsItsJob) {
  holdEncoders();
  watch("in");
  fs::copy_file(m_clip, media("in/a.mp4"));
  ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4", JOB_RUNNING) == 1; }));
  fs::rename(media("in/a.mp4"), media("a.mp4"));
  EXPECT_TRUE(
      waitUntil([this] { return jobs().empty() && ctl({"units"}).value_or("") == "[]\n"; }));
  release();
  fs::rename(media("a.mp4"), media("in/b.mp4"));
  ASSERT_TRUE(isDoneOnce("in/b.mp4"));
  EXPECT_FALSE(fs::exists(result("in/a.mp4")));
}

TEST_F(WatchSystem, RemovingAFolderStopsItsJobsAndSparesItsSibling) {
  holdEncoders();
  fs::create_directory(media("inside"));
  watch("in");
  watch("inside");
  fs::copy_file(m_clip, media("in/a.mp4"));
  ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4", JOB_RUNNING) == 1; }));
  fs::copy_file(m_clip, media("inside/b.mp4"));
  ASSERT_TRUE(waitUntil([this] { return count("inside/b.mp4") == 1; }));
  ASSERT_TRUE(ctl({"folder", "remove", media("in") + "/"}));
  EXPECT_EQ(count("in/a.mp4"), 0);
  EXPECT_EQ(status().at("folders").size(), 1U);
  release();
  ASSERT_TRUE(isDoneOnce("inside/b.mp4"));
  EXPECT_FALSE(fs::exists(result("in/a.mp4")));
  EXPECT_FALSE(ctl({"folder", "remove", media("in")})) << "it is not watched any more";
}

TEST_F(WatchSystem, AnotherTargetBringsAnotherResult) {
  watch("in");
  fs::copy_file(m_clip, media("in/a.mp4"));
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  ASSERT_TRUE(ctl({"folder", "update", media("in"), "--profile", "mobile360p"}));
  EXPECT_TRUE(
      waitUntil([this] { return fs::exists(media("in/@Transcode/a.mp4.mobile360p.mp4")); }, kLong));
}

TEST_F(WatchSystem, TheListSurvivesAKilledServiceAndItsStartFindsWhatCame) {
  watch("in");
  m_daemon.signal(SIGKILL);
  m_daemon.wait();
  fs::copy_file(m_clip, media("in/a.mp4"));
  start();
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
}

TEST_F(WatchSystem, AVolumeThatIsUnmountedKeepsItsJobsAndTheyRunWhenItIsBack) {
  fs::create_directory(media("volume"));
  const Volume volume(media("volume"), media("in"));
  if (!volume.isMounted()) GTEST_SKIP() << "mounting is not allowed here";
  watch("in");
  ASSERT_TRUE(ctl({"pause"}));
  fs::copy_file(m_clip, media("in/a.mp4"));
  ASSERT_TRUE(waitUntil([this] { return count("in/a.mp4") == 1; }));
  // A walk that has a folder open keeps its volume.
  ASSERT_TRUE(waitUntil([this] { return umount(media("in").c_str()) == 0; }));
  ASSERT_TRUE(ctl({"resume"}));
  expectNothingFor("in/a.mp4", seconds(3));
  EXPECT_EQ(count("in/a.mp4", JOB_WAITING), 1);
  EXPECT_EQ(waitsFor("in/a.mp4"), "the volume of its source, which is not mounted");
  ASSERT_TRUE(waitUntil([this] {
    return kxtest::readFile(m_dir / "log").find(media("in") + " is there, watch and scan it") !=
           std::string::npos;
  }));
  fs::copy_file(m_clip, media("volume/b.mp4"));
  ASSERT_TRUE(volume.mountAgain());
  ASSERT_TRUE(waitUntil([this] { return count("in/b.mp4") == 1; }));
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  ASSERT_TRUE(isDoneOnce("in/b.mp4"));
}

TEST_F(WatchSystem, AFolderThatIsDeletedIsListedAsMissingAndWatchedAgainWhenItIsBack) {
  watch("in");
  fs::copy_file(m_clip, media("in/a.mp4"));
  ASSERT_TRUE(isDoneOnce("in/a.mp4"));
  fs::remove_all(media("in"));
  ASSERT_TRUE(waitUntil([this] { return status().at("folders").at(0).at("state") == "missing"; }));
  EXPECT_TRUE(jobs().empty());
  const auto text = kxtest::run({program("xcodectl"), "--socket", socket(), "folder", "list"});
  EXPECT_NE(text.value_or("").find("missing  " + media("in")), std::string::npos) << *text;
  // Not even a service that was told to stop scanning needs another word.
  ASSERT_TRUE(ctl({"scan", "--stop"}));
  fs::create_directory(media("in"));
  fs::copy_file(m_clip, media("in/b.mp4"));
  ASSERT_TRUE(waitUntil([this] { return count("in/b.mp4") == 1; }));
  ASSERT_TRUE(isDoneOnce("in/b.mp4"));
  EXPECT_EQ(status().at("folders").at(0).at("state"), "watched");
}

TEST_F(WatchSystem, NamesOfAnyBytesAreTranscoded) {
  watch("in");
  const std::vector<std::string> names = {"a\nb.mp4", "\"q\" 'r' $x;.mp4", "100%_x.mp4",
                                          "\xff\xfe.mp4", std::string(220, 'n') + ".mp4"};
  for (const std::string& name : names) fs::copy_file(m_clip, media("in/" + name));
  ASSERT_TRUE(waitUntil(
      [&] {
        return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
          return fs::exists(result("in/" + name));
        });
      },
      kLong))
      << jobs().dump(1, ' ', false, json::error_handler_t::replace);
  EXPECT_EQ(jobs().size(), names.size());
}

TEST_F(WatchSystem, FoldersThatCannotBeWatchedAreRefusedWithAReason) {
  fs::create_directory_symlink(media("in"), media("link"));
  fs::create_directory_symlink("/proc", media("proc"));
  for (const std::string& path :
       {std::string("/"), std::string("/proc"), std::string("/sys/kernel"), std::string("/dev/shm"),
        std::string("/run"), media("link"), media("absent"), m_clip, media("proc") + "/self"})
    EXPECT_FALSE(ctl({"folder", "add", path, "--all"})) << path;
  EXPECT_FALSE(ctl({"folder", "add", media("in")})) << "no profile";
  EXPECT_TRUE(status().at("folders").empty());
  watch("in");
  // Each refusal says why.
  const auto said = [&](const std::string& verb, const std::string& path) {
    return refusal({"folder", verb, path, "--all"});
  };
  const auto says = [](const std::string& text) { return "xcodectl: " + text + "\nexit 1\n"; };
  EXPECT_EQ(said("add", media("in") + "/"), says("the folder is watched already"));
  EXPECT_EQ(said("update", media("absent")), says("the folder is not watched"));
  EXPECT_EQ(refusal({"folder", "remove", media("absent")}), says("the folder is not watched"));
  EXPECT_EQ(said("add", media("absent")), says("there is no folder " + media("absent")));
  EXPECT_EQ(said("add", m_clip), says(m_clip + " is not a folder"));
  EXPECT_EQ(said("add", media("link") + "/"),
            says(media("link") + " is a link; watch the folder that it leads to"));
  EXPECT_EQ(said("add", "/"), says("the whole file system cannot be watched"));
  EXPECT_EQ(said("add", "/dev/shm"), says("/dev cannot be watched"));
  EXPECT_EQ(said("add", fs::path(media("in")).parent_path() / "@Transcode"),
            says("there is no folder " + media("@Transcode")));
  fs::create_directory(media("@Transcode"));
  EXPECT_EQ(said("add", media("@Transcode")), says("the service's own folders cannot be watched"));
  EXPECT_NE(refusal({"folder", "add", media("in"), "--profile", "x"}).find("exit 2\n"),
            std::string::npos);
  // A path that is not absolute is one of the client's.
  fs::create_directory(media("other"));
  const auto watched = kxtest::run({"/bin/sh", "-c", "cd \"$1\" && shift && exec \"$@\"", "sh",
                                    media("in"), program("xcodectl"), "--socket", socket(),
                                    "folder", "add", "../other/", "--all"});
  EXPECT_NE(watched.value_or("").find(media("other") + " is watched for mobile240p,"),
            std::string::npos);
  ASSERT_TRUE(ctl({"folder", "remove", media("other")}));
  EXPECT_EQ(json::parse(*ctl({"config"})).at("text"), media("in") + ":1\n");
}

TEST_F(WatchSystem, ScansAreStoppedAtOnceAndTheServiceEndsDuringOne) {
  for (int i = 0; i < 4000; ++i)
    kxtest::writeFile(media("in/" + std::to_string(i) + ".mp4"), "no film");
  ASSERT_TRUE(ctl({"pause"}));
  watch("in");
  ASSERT_TRUE(waitUntil([this] { return status().at("scanning") == media("in"); }));
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(ctl({"scan"}));
  auto start = std::chrono::steady_clock::now();
  EXPECT_GE(status().at("queuedScans"), 4);
  EXPECT_TRUE(ctl({"list"}));
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(2)) << "requests are answered";
  start = std::chrono::steady_clock::now();
  ASSERT_TRUE(ctl({"scan", "--stop"}));
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(1));
  EXPECT_EQ(status().at("queuedScans"), 0);
  EXPECT_EQ(status().at("scanning"), "");
  EXPECT_FALSE(status().at("scanner"));
  ASSERT_TRUE(ctl({"scan"}));
  ASSERT_TRUE(waitUntil([this] { return status().at("scanning") == media("in"); }));
  start = std::chrono::steady_clock::now();
  stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
}
