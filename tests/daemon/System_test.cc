#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <set>
#include <thread>

#include "KxTransDBMgr.h"
#include "KxTranscodeUnit2.h"
#include "frame/UniqueFd.h"
#include "tests/daemon/DaemonRun.h"
#include "tests/daemon/Records.h"
#include "tests/support/OtherConnection.h"

#ifndef __has_feature
#define __has_feature(x) 0
#endif

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace kxtest;
using nlohmann::json;

namespace {

constexpr int kUnfinished = 1 << JOB_WAITING | 1 << JOB_RUNNING;
constexpr const char* kDaemon = KX_BUILD_DIR "/bin/xcoded";
constexpr auto kAtOnce = 1000ms;  // in which a command on a running job must show

bool atOnce(const std::function<bool()>& condition) {
  return waitUntil(condition, kAtOnce);
}

bool waitForEnd(const DaemonRun& daemon, int64_t id, std::chrono::seconds limit = 60s) {
  return waitUntil(
      [&] {
        const int status = daemon.status(id);
        return status != JOB_WAITING && status != JOB_RUNNING;
      },
      limit);
}

std::string resultOf(const DaemonRun& daemon, int64_t id) {
  return daemon.show(id).at("outputs").at(0).at("path");
}

// The rows as a later reader finds them.
std::vector<KxDBTaskParam> rowsOnDisk(const DaemonRoot& root) {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  EXPECT_EQ(store->init(root / "var/lib/xcode/jobs.db"), 0);
  std::vector<KxDBTaskParam> rows;
  for (const KxDBTask& task :
       store->getDBJob(KxDBGetJobParam(1UL << 4, 1000, "Rank", 0, true, -1, 0)))
    rows.push_back(task.param);
  store->uninit();
  return rows;
}

long residentKb(pid_t pid) {
  const std::string text = readFile("/proc/" + std::to_string(pid) + "/status");
  return atol(text.c_str() + text.find("VmRSS:") + 6);
}

// Sanitizers keep memory of their own beside the program's.
long memoryLimitKb(long megabytes) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
  return megabytes * 1024 * 10;
#else
  return megabytes * 1024;
#endif
}

// Runs a body as another user in a process of its own; its exit code.
int asUser(uid_t user, gid_t group, const std::vector<gid_t>& more,
           const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgroups(more.size(), more.data()) != 0 || setgid(group) != 0 || setuid(user) != 0)
      _exit(99);
    _exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(Daemon, TurnsAClipIntoAFinishedFile) {
  const DaemonRoot root;
  makeClip(root.media("a.mp4"));
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"), {{"jobFlag", 3}});
  ASSERT_TRUE(waitForEnd(daemon, id));
  const json job = daemon.show(id);
  EXPECT_EQ(job.at("status"), JOB_DONE) << job;
  ASSERT_EQ(job.at("outputs").size(), 2U);
  for (const json& output : job["outputs"]) {
    EXPECT_EQ(output.at("exists"), true) << output;
    EXPECT_TRUE(run({"ffprobe", "-v", "error", output.at("path")})) << output;
  }
  EXPECT_GT(job.at("dateFinish"), 0);
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
}

TEST(Daemon, TwentyJobsAtOnceAllFinishWithinTheLimit) {
  const DaemonRoot root;
  makeClip(root.media("0.mp4"), 160, 120);
  for (int i = 1; i < 20; ++i)
    fs::copy_file(root.media("0.mp4"), root.media(std::to_string(i) + ".mp4"));
  const DaemonRun daemon(root);
  for (int i = 0; i < 20; ++i) ASSERT_GT(daemon.add(root.media(std::to_string(i) + ".mp4")), 0);
  size_t most = 0;
  EXPECT_TRUE(waitUntil(
      [&] {
        size_t running = 0;
        for (const json& unit : daemon.units()) running += processRuns(unit.value("pid", -1));
        most = std::max(most, running);
        return daemon.count(kUnfinished) == 0;
      },
      100s));
  EXPECT_EQ(daemon.count(1 << JOB_DONE), 20);
  EXPECT_LE(most, 2U);
  EXPECT_GE(most, 1U);
  EXPECT_TRUE(daemon.children().empty());
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
  for (const json& resource : jsonOf(*daemon.ask(KX_CMD_GET_RESOURCE)))
    EXPECT_EQ(resource.at("registrations"), 0);
}

TEST(Daemon, StopActsAtOnceAndTheJobWaitsAgain) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"));
  const pid_t encoder = daemon.waitForEncoder();
  ASSERT_GT(encoder, 0);
  EXPECT_EQ(daemon.status(id), JOB_RUNNING);
  EXPECT_EQ(daemon.result(KX_CMD_STOP), 0);
  EXPECT_TRUE(atOnce([&] { return !processRuns(encoder) && daemon.status(id) == JOB_WAITING; }));
  EXPECT_EQ(daemon.show(id).at("dateStart"), 0);
  EXPECT_EQ(daemon.show(id).at("dateFinish"), 0);
  EXPECT_EQ(daemon.show(id).at("waitsFor"), "the service, which is stopped");
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 1), SVR_STOPPED);
  EXPECT_TRUE(atOnce([&] { return root.leftovers().empty() && daemon.units().empty(); }));
  EXPECT_EQ(daemon.result(KX_CMD_START), 0);
  EXPECT_GT(daemon.waitForEncoder(), 0) << "the job runs again";
}

TEST(Daemon, PauseKeepsTheJobAndResumeGoesOn) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"));
  const pid_t encoder = daemon.waitForEncoder();
  ASSERT_GT(encoder, 0);
  EXPECT_EQ(daemon.result(KX_CMD_PAUSE, -5), 0);
  EXPECT_TRUE(atOnce([&] { return !processRuns(encoder); }));
  EXPECT_EQ(daemon.status(id), JOB_RUNNING) << "the row is kept for queries";
  const auto status = daemon.ask(KX_CMD_GET_SVR_STATUS);
  EXPECT_EQ(numberOf(*status, 1), SVR_PAUSED);
  EXPECT_EQ(numberOf(*status, 2), -1);
  EXPECT_EQ(daemon.units().at(0).at("state"), UNIT_PENDING);
  EXPECT_EQ(daemon.result(KX_CMD_PAUSE, 0), 0);
  EXPECT_GT(daemon.waitForEncoder(), 0);
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 1), SVR_RUNNING);
  EXPECT_EQ(daemon.units().size(), 1U) << "one unit, resumed";
}

TEST(Daemon, ATimedPauseEndsByItself) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  const DaemonRun daemon(root);
  daemon.add(root.media("a.mp4"));
  ASSERT_GT(daemon.waitForEncoder(), 0);
  EXPECT_EQ(daemon.result(KX_CMD_PAUSE, 1), 0);
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 1), SVR_PAUSED);
  EXPECT_TRUE(waitUntil(
      [&] { return numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 1) == SVR_RUNNING; }, 3s));
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 2), 0);
  EXPECT_GT(daemon.waitForEncoder(), 0);
}

TEST(Daemon, JobsAddedDuringAPauseStartWhenItEnds) {
  const DaemonRoot root;
  makeClip(root.media("a.mp4"), 160, 120);
  const DaemonRun daemon(root);
  ASSERT_EQ(daemon.result(KX_CMD_PAUSE, -1), 0);
  const int64_t id = daemon.add(root.media("a.mp4"));
  EXPECT_EQ(daemon.status(id), JOB_WAITING);
  EXPECT_EQ(daemon.show(id).at("waitsFor"), "the end of the pause");
  EXPECT_TRUE(daemon.units().empty());
  EXPECT_EQ(daemon.result(KX_CMD_PAUSE, 0), 0);
  EXPECT_TRUE(waitForEnd(daemon, id));
  EXPECT_EQ(daemon.status(id), JOB_DONE);
}

TEST(Daemon, CancelActsAtOnceAndKeepsTheRow) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"));
  const pid_t encoder = daemon.waitForEncoder();
  ASSERT_GT(encoder, 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(daemon.result(KX_CMD_CANCEL_JOB, 0, {{"id", id}}), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, kAtOnce);
  EXPECT_EQ(daemon.status(id), JOB_CANCELLED);
  EXPECT_FALSE(processRuns(encoder));
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
  EXPECT_TRUE(daemon.units().empty());
}

TEST(Daemon, CancelOfADocumentActsAtOnceToo) {
  if (!fs::exists("/usr/bin/gs")) GTEST_SKIP() << "no renderer is installed";
  const DaemonRoot root;
  fs::create_directories(root / "usr/local/sbin");
  fs::create_symlink("/usr/bin/gs", root / "usr/local/sbin/gs");
  writeFile(root.media("a.pdf"), emptyPdf(4000));
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.pdf"));
  const pid_t renderer = daemon.waitForEncoder();
  ASSERT_GT(renderer, 0);
  ASSERT_TRUE(waitUntil([&] { return fs::exists(root.media("a.pdf.album/a-5.jpg")); }));
  ASSERT_EQ(daemon.result(KX_CMD_CANCEL_JOB, 0, {{"id", id}}), 0);
  EXPECT_TRUE(atOnce([&] { return daemon.units().empty() && !processRuns(renderer); }));
  EXPECT_EQ(daemon.status(id), JOB_CANCELLED);
  EXPECT_TRUE(daemon.children().empty());
  const auto left = fs::directory_iterator(root / "media");
  EXPECT_EQ(std::distance(fs::begin(left), fs::end(left)), 1) << "nothing but the document";
}

TEST(Daemon, TheClientQueuesASongAndItsSoundBecomesAnMp3File) {
  const DaemonRoot root;
  ASSERT_TRUE(run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=d=3", "-metadata",
                   "title=My Song", root.media("song.flac")}));
  const DaemonRun daemon(root);
  const std::string client = KX_BUILD_DIR "/bin/xcodectl";
  ASSERT_TRUE(run(
      {client, "--root", root.path(), "add", root.media("song.flac"), "--profile", "video2audio"}));
  ASSERT_TRUE(run({client, "--root", root.path(), "wait", "1"})) << daemon.show(1);
  const std::string result = root.media("Video2audio/song.mp3");
  EXPECT_EQ(resultOf(daemon, 1), result);
  EXPECT_EQ(run({"ffprobe", "-v", "error", "-show_entries", "stream=codec_name:format_tags=title",
                 "-of", "default=nw=1:nk=1", result}),
            "mp3\nMy Song\n");
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
}

TEST(Daemon, TheClientTakesOverAnOlderQueueAndSaysSoWhenItDoesItTwice) {
  const DaemonRoot root;
  makeClip(root.media("a.mp4"), 160, 120);
  const std::string old = root / "old.db";
  OtherConnection(old).run(
      "CREATE TABLE TranscodeJob (Id INTEGER PRIMARY KEY, FileName TEXT, DateAdded INTEGER, "
      "Status INTEGER, Jobflag INTEGER, Mediatype INTEGER, Inserttype INTEGER);"
      "INSERT INTO TranscodeJob VALUES (1, '" +
      root.media("a.mp4") + "', 2, 3, 1, 1, 1), (2, '/gone.mp4', 1, 1, 1, 1, 1)");
  const std::string before = readFile(old);
  const DaemonRun daemon(root);
  const std::string client = KX_BUILD_DIR "/bin/xcodectl";
  EXPECT_EQ(run({client, "--root", root.path(), "import-legacy", old}), "2 jobs imported.\n");
  ASSERT_TRUE(waitForEnd(daemon, 2));
  EXPECT_EQ(daemon.status(1), JOB_DONE);  // as it was
  EXPECT_EQ(daemon.status(2), JOB_DONE) << daemon.show(2);
  EXPECT_EQ(resultOf(daemon, 2), root.media("@Transcode/a.mp4.mobile240p.mp4"));
  const auto again = run({client, "--root", root.path(), "--json", "import-legacy", old});
  EXPECT_EQ(json::parse(again.value_or("")),
            json({{"ok", true}, {"imported", 2}, {"known", 2}, {"skipped", 0}}));
  EXPECT_EQ(run({client, "--root", root.path(), "import-legacy", root.path()}), std::nullopt);
  EXPECT_EQ(readFile(old), before);
  EXPECT_EQ(daemon.count(16), 4);
}

TEST(Daemon, TheClientShowsWhyACardWasLeft) {
  const DaemonRoot root;
  root.configure("MAX_UNITS=1\nSTALL_SEC=1\n");
  root.script(
      "sbin/accelctl",
      "case $1 in -l) echo gpu0:maker:model:external:1; echo gpu1:maker:model:external:1;;\n"
      "-q) printf 'count=2\\ngpu0\\ngpu1\\n';; -s) echo real_status=2,transcode=1;; esac\n");
  // The first card that is tried fails, the next one hangs.
  root.script("usr/local/medialibrary/bin/transcode_agent",
              "mkdir '" + root.media("tried") +
                  "' 2> /dev/null || exec sleep 600\necho no memory >&2\nexit 9\n");
  makeClip(root.media("a.mp4"), 160, 120);
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"));
  ASSERT_TRUE(waitForEnd(daemon, id));
  EXPECT_EQ(daemon.status(id), JOB_DONE);
  const std::string client = KX_BUILD_DIR "/bin/xcodectl";
  const auto shown = run({client, "--root", root.path(), "show", "1"});
  ASSERT_TRUE(shown);
  const std::string failed = ": the encoder ended with 9: no memory; gpu";
  const std::string hung = ": the encoder made no progress; done by sw_cpu";
  EXPECT_NE(shown->find(failed), std::string::npos) << *shown;
  EXPECT_NE(shown->find(hung), std::string::npos) << *shown;
  EXPECT_TRUE(daemon.children().empty());
  for (const json& resource : jsonOf(*daemon.ask(KX_CMD_GET_RESOURCE)))
    EXPECT_EQ(resource.at("registrations"), 0);
}

TEST(Daemon, ASongShowsItsProgressAndIsCancelledAtOnce) {
  const DaemonRoot root;
  root.useRealParser();
  root.slowEncoder();
  ASSERT_TRUE(
      run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=d=12", root.media("song.flac")}));
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("song.flac"), {{"jobFlag", 1 << 6}});
  const pid_t encoder = daemon.waitForEncoder();
  ASSERT_GT(encoder, 0);
  std::set<int> seen;
  EXPECT_TRUE(waitUntil([&] {
    for (const json& unit : daemon.units()) seen.insert(unit.value("progress", -1));
    return seen.size() >= 4;
  }));
  EXPECT_TRUE(std::ranges::all_of(seen, [](int percent) { return percent >= 0 && percent < 60; }));
  ASSERT_EQ(daemon.result(KX_CMD_CANCEL_JOB, 0, {{"id", id}}), 0);
  EXPECT_TRUE(atOnce([&] { return daemon.units().empty() && !processRuns(encoder); }));
  EXPECT_EQ(daemon.status(id), JOB_CANCELLED);
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
}

TEST(Daemon, CancelOfASuspendedJobWorksToo) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"));
  ASSERT_GT(daemon.waitForEncoder(), 0);
  ASSERT_EQ(daemon.result(KX_CMD_PAUSE, -1), 0);
  EXPECT_EQ(daemon.result(KX_CMD_CANCEL_JOB, 0, {{"id", id}}), 0);
  EXPECT_EQ(daemon.status(id), JOB_CANCELLED);
  EXPECT_TRUE(daemon.units().empty());
}

TEST(Daemon, DeletingARunningJobLeavesNothing) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"));
  const pid_t encoder = daemon.waitForEncoder();
  ASSERT_GT(encoder, 0);
  EXPECT_EQ(daemon.result(KX_CMD_DELETE_JOB, 0, {{"folder", root / "media"}}), 0);
  EXPECT_EQ(daemon.count(1 << 4), 0);
  EXPECT_FALSE(processRuns(encoder));
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
  // The id is free again; nothing that came late may touch its new owner.
  root.setEncoder("", "");
  fs::copy_file(root.media("a.mp4"), root.media("b.mp4"));
  const int64_t next = daemon.add(root.media("b.mp4"));
  EXPECT_EQ(next, id);
  EXPECT_TRUE(waitForEnd(daemon, next));
  EXPECT_EQ(daemon.status(next), JOB_DONE);
}

TEST(Daemon, CleaningUnprocessedStopsWhatRuns) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  for (const char* name : {"b.mp4", "c.mp4"}) fs::copy_file(root.media("a.mp4"), root.media(name));
  const DaemonRun daemon(root);
  for (const char* name : {"a.mp4", "b.mp4", "c.mp4"}) daemon.add(root.media(name));
  ASSERT_GT(daemon.waitForEncoder(), 0);
  EXPECT_EQ(daemon.result(KX_CMD_CLEAN_JOBS, 0, {{"which", "unprocessed"}}), 0);
  EXPECT_EQ(daemon.count(1 << 4), 0);
  EXPECT_TRUE(daemon.children().empty());
  EXPECT_TRUE(daemon.units().empty());
}

TEST(Daemon, LowerPriorityNumbersRunFirst) {
  const DaemonRoot root;
  root.configure("MAX_UNITS=1\n");
  root.setEncoder("case \"$*\" in *\".mp4.remux\"*) ;; *) for a in \"$@\"; do case $a in "
                  "*/media/?.mp4) echo $a >> " +
                      (root / "order") + ";; esac; done;; esac",
                  "");
  makeClip(root.media("a.mp4"), 160, 120);
  for (const char* name : {"b.mp4", "c.mp4"}) fs::copy_file(root.media("a.mp4"), root.media(name));
  const DaemonRun daemon(root);
  ASSERT_EQ(daemon.result(KX_CMD_STOP), 0);
  daemon.add(root.media("a.mp4"), {{"priority", 5}});
  daemon.add(root.media("b.mp4"));
  daemon.add(root.media("c.mp4"), {{"priority", -5}});
  ASSERT_EQ(daemon.result(KX_CMD_START), 0);
  EXPECT_TRUE(waitUntil([&] { return daemon.count(kUnfinished) == 0; }, 60s));
  EXPECT_EQ(readFile(root / "order"),
            root.media("c.mp4") + "\n" + root.media("b.mp4") + "\n" + root.media("a.mp4") + "\n");
}

TEST(Daemon, AFailedJobSaysWhyAndCanBeRetried) {
  const DaemonRoot root;
  writeFile(root.media("a.mp4"), "this is no film");
  const DaemonRun daemon(root);
  const int64_t id = daemon.add(root.media("a.mp4"));
  ASSERT_TRUE(waitForEnd(daemon, id));
  EXPECT_EQ(daemon.status(id), JOB_ERROR);
  EXPECT_NE(daemon.show(id).at("reason"), "");
  makeClip(root.media("a.mp4"), 160, 120);
  EXPECT_EQ(daemon.result(KX_CMD_RETRY_JOB, 0, {{"id", id}}), 0);
  ASSERT_TRUE(waitForEnd(daemon, id));
  EXPECT_EQ(daemon.status(id), JOB_DONE);
  EXPECT_EQ(daemon.show(id).at("reason"), "");
}

TEST(Daemon, KilledItTakesItsEncodersWithItAndStartsOver) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  pid_t encoder = -1;
  int64_t id = -1;
  {
    DaemonRun daemon(root);
    id = daemon.add(root.media("a.mp4"));
    encoder = daemon.waitForEncoder();
    ASSERT_GT(encoder, 0);
    EXPECT_TRUE(waitUntil([&] { return !root.leftovers().empty(); })) << "it works on files";
    daemon.end(SIGKILL);
    EXPECT_TRUE(atOnce([&] { return !processRuns(encoder); }));
  }
  ASSERT_EQ(rowsOnDisk(root).at(0).status, JOB_RUNNING);
  root.setEncoder("", "");
  DaemonRun again(root);
  ASSERT_TRUE(waitForEnd(again, id));
  EXPECT_EQ(again.status(id), JOB_DONE);
  EXPECT_TRUE(fs::exists(resultOf(again, id)));
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
}

TEST(Daemon, SigtermEndsItInGoodOrder) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  DaemonRun daemon(root);
  daemon.add(root.media("a.mp4"));
  const pid_t encoder = daemon.waitForEncoder();
  ASSERT_GT(encoder, 0);
  const int status = daemon.end(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(processRuns(encoder));
  EXPECT_FALSE(fs::exists(root / "run/xcode/control.sock"));
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
  const auto rows = rowsOnDisk(root);
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].status, JOB_WAITING);
  EXPECT_EQ(rows[0].dateStart, 0);
}

TEST(Daemon, CtrlCLeavesTheJobsWaitingAndTheNextStartRunsThem) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  makeClip(root.media("b.mp4"), 160, 120, 4);
  int64_t id = -1;
  {
    DaemonRun daemon(root);
    for (const char* name : {"a.mp4", "b.mp4"}) id = daemon.add(root.media(name));
    const pid_t encoder = daemon.waitForEncoder();
    ASSERT_GT(encoder, 0);
    EXPECT_EQ(getpgid(encoder), encoder) << "out of reach of the terminal";
    ASSERT_EQ(getpgid(daemon.pid()), daemon.pid());
    const int status = daemon.end(SIGINT);  // as a terminal does: to the whole group
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(processRuns(encoder));
  }
  EXPECT_EQ(root.leftovers(), std::vector<std::string>{});
  for (const KxDBTaskParam& row : rowsOnDisk(root)) {
    EXPECT_EQ(row.status, JOB_WAITING) << row.src;
    EXPECT_EQ(row.dateStart, 0);
  }
  const DaemonRun again(root);
  ASSERT_TRUE(waitForEnd(again, id));
  EXPECT_EQ(again.status(id), JOB_DONE);
}

TEST(Daemon, SigtermDuringAPauseLeavesTheJobWaiting) {
  const DaemonRoot root;
  root.slowEncoder();
  makeClip(root.media("a.mp4"), 160, 120, 30);
  DaemonRun daemon(root);
  daemon.add(root.media("a.mp4"));
  ASSERT_GT(daemon.waitForEncoder(), 0);
  ASSERT_EQ(daemon.result(KX_CMD_PAUSE, -1), 0);
  const int status = daemon.end(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(rowsOnDisk(root).at(0).status, JOB_WAITING);
}

TEST(Daemon, SigtermIsPromptWhileClientsHangOn) {
  const DaemonRoot root;
  DaemonRun daemon(root);
  const UniqueFd silent(daemon.connect());
  ASSERT_TRUE(silent);
  const auto start = std::chrono::steady_clock::now();
  const int status = daemon.end(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST(Daemon, MalformedRequestsGetAnErrorAndTouchNothing) {
  const DaemonRoot root;
  DaemonRun daemon(root);
  ASSERT_EQ(daemon.result(KX_CMD_STOP), 0);
  writeFile(root.media("a.mp4"), "x");
  const int64_t id = daemon.add(root.media("a.mp4"));
  const std::string noNul(KxSockData_s::kTextSize, 'x');
  const std::string nested(60000, '[');
  struct Case {
    int32_t code;
    int32_t number;
    std::string text;
  };
  std::vector<Case> cases = {{0, 0, ""},          {1, 0, ""},
                             {37, 0, ""},         {-1, 0, ""},
                             {INT32_MAX, 0, ""},  {INT32_MIN, 0, ""},
                             {8, 0, ""},          {8, 101, ""},
                             {8, INT32_MIN, ""},  {10, 0, ""},
                             {10, INT32_MAX, ""}, {26, 7, ""},
                             {21, -1, ""},        {21, INT32_MAX, R"({"offset":2147483647})"}};
  for (const int32_t code :
       {KX_CMD_REG_PROCESS, KX_CMD_ADD_JOB, KX_CMD_QUERY_JOB, KX_CMD_DELETE_JOB, KX_CMD_CANCEL_JOB,
        KX_CMD_RETRY_JOB, KX_CMD_SWAP_JOB, KX_CMD_MOVE_JOB, KX_CMD_CLEAN_JOBS, KX_CMD_COUNT_JOB,
        KX_CMD_SHOW_JOB}) {
    for (const std::string& text :
         {noNul, nested, std::string("{"), std::string("[]"), std::string("null"),
          std::string("\x80\xff{}"), std::string(R"({"id":"1"})"), std::string(R"({"id":1.5})"),
          std::string(R"({"id":-1,"with":1,"rank":1})"), std::string(R"({"id":999999999})"),
          std::string(R"({"nonsense":true})"), std::string(R"({"src":["/a"],"jobFlag":1})"),
          std::string(R"({"id":1,"id2":2})"), std::string(R"({"limit":-1})")})
      cases.push_back({code, 0, text});
  }
  for (const Case& one : cases) {
    auto request = makeRequest(one.code);
    putNumber(*request, 1, one.number);
    putText(*request, KxSockData_s::kTextBlock, one.text);
    const auto answer = daemon.ask(*request);
    const std::string what = std::to_string(one.code) + " " + one.text.substr(0, 60);
    ASSERT_TRUE(answer) << what;
    EXPECT_EQ(numberOf(*answer, 0), one.code) << what;
    EXPECT_NE(numberOf(*answer, 1), 0) << what;
    EXPECT_TRUE(jsonOf(*answer).contains("error")) << what;
  }
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_EQ(daemon.count(1 << 4), 1);
  EXPECT_EQ(daemon.status(id), JOB_WAITING);
}

TEST(Daemon, PathBlocksWithoutNulOrWithNewlinesAreRefused) {
  const DaemonRoot root;
  const DaemonRun daemon(root);
  for (const int32_t code : {KX_CMD_ADD_FOLDER, KX_CMD_DEL_FOLDER, KX_CMD_UPDATE_FOLDER,
                             KX_CMD_IMPORT_LEGACY, KX_CMD_ADD_JOB}) {
    for (const std::string& path :
         {std::string(KxSockData_s::kBlockSize, '/'), std::string("/a\nb"), std::string("a"),
          std::string("/x/../y"), std::string()}) {
      auto request = makeRequest(code);
      putText(*request, 1, path);
      const auto answer = daemon.ask(*request);
      ASSERT_TRUE(answer) << code << path.substr(0, 20);
      EXPECT_NE(numberOf(*answer, 1), 0) << code << path.substr(0, 20);
    }
  }
}

TEST(Daemon, AShortRecordClosesTheConnectionOnly) {
  const DaemonRoot root;
  const DaemonRun daemon(root);
  for (const size_t size : {size_t{0}, size_t{1}, size_t{4096}, sizeof(KxSockData_s) - 1}) {
    const UniqueFd fd(daemon.connect());
    const std::string part(size, '\x14');
    ASSERT_EQ(send(fd.get(), part.data(), size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
    shutdown(fd.get(), SHUT_WR);
    char byte = 0;
    EXPECT_EQ(recv(fd.get(), &byte, 1, 0), 0) << size;
  }
  EXPECT_EQ(daemon.count(1 << 4), 0);
}

TEST(Daemon, ClientsThatLeaveWithoutReadingAreNoTrouble) {
  const DaemonRoot root;
  DaemonRun daemon(root);
  const auto request = makeRequest(KX_CMD_GET_SVR_STATUS);
  for (int i = 0; i < 50; ++i) {
    const UniqueFd fd(daemon.connect());
    send(fd.get(), request.get(), sizeof *request, MSG_NOSIGNAL);
  }
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 1), SVR_RUNNING);
  EXPECT_TRUE(daemon.isRunning());
}

TEST(Daemon, SlowClientsDoNotKeepOthersOut) {
  const DaemonRoot root;
  root.configure("MAX_CLIENTS=2\nRECORD_SEC=2\n");
  const DaemonRun daemon(root);
  std::vector<UniqueFd> slow;
  for (int i = 0; i < 8; ++i) {
    slow.emplace_back(daemon.connect());
    send(slow.back().get(), "x", 1, MSG_NOSIGNAL);
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 1), SVR_RUNNING);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  for (const UniqueFd& fd : slow) {
    char byte = 0;
    EXPECT_LE(recv(fd.get(), &byte, 1, 0), 0) << "cut off";
  }
}

TEST(Daemon, RightsFollowTheUserAtTheOtherEnd) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to become other users";
  const DaemonRoot root;
  root.configure("ALLOW_GROUP=4711\n");
  writeFile(root.media("a.mp4"), "x");
  const DaemonRun daemon(root);
  ASSERT_EQ(daemon.result(KX_CMD_STOP), 0);
  const json job = {{"src", root.media("a.mp4")}, {"jobFlag", 1}};
  const auto addJob = [&] { return daemon.result(KX_CMD_ADD_JOB, 0, job) == 0 ? 0 : 1; };
  const auto readStatus = [&] {
    return daemon.ask(KX_CMD_GET_SVR_STATUS) && daemon.count(1 << 4) >= 0 ? 0 : 1;
  };
  EXPECT_EQ(asUser(65534, 65534, {}, readStatus), 0);
  EXPECT_EQ(asUser(65534, 65534, {}, addJob), 1);
  EXPECT_EQ(daemon.count(1 << 4), 0) << "nothing was queued";
  for (const int32_t code : {KX_CMD_START, KX_CMD_PAUSE, KX_CMD_SET_CPU_LIMIT, KX_CMD_DELETE_JOB,
                             KX_CMD_CLEAN_JOBS, KX_CMD_DUMP_JOB, KX_CMD_REG_PROCESS}) {
    const auto isDenied = [&] {
      const auto answer = daemon.ask(code, 1);
      return answer && jsonOf(*answer) == json({{"error", "permission denied"}}) ? 0 : 1;
    };
    EXPECT_EQ(asUser(65534, 65534, {}, isDenied), 0) << code;
  }
  EXPECT_EQ(asUser(65534, 4711, {}, addJob), 0) << "by the primary group";
  EXPECT_EQ(asUser(65534, 65534, {5, 4711}, addJob), 0) << "by a further group";
  EXPECT_EQ(daemon.count(1 << 4), 1);
}

TEST(Daemon, NothingStartsWhileTheDiskIsFull) {
  const DaemonRoot root;
  makeClip(root.media("a.mp4"), 160, 120);
  const DaemonRun daemon(root);
  // A database that cannot be measured counts as a full disk.
  fs::rename(root / "var/lib/xcode/jobs.db", root / "var/lib/xcode/away.db");
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 3), 1);
  const int64_t id = daemon.add(root.media("a.mp4"));
  EXPECT_FALSE(waitUntil([&] { return daemon.status(id) != JOB_WAITING; }, 1500ms));
  EXPECT_EQ(daemon.show(id).at("waitsFor"), "room on the volume of the queue");
  fs::rename(root / "var/lib/xcode/away.db", root / "var/lib/xcode/jobs.db");
  EXPECT_EQ(numberOf(*daemon.ask(KX_CMD_GET_SVR_STATUS), 3), 0);
  EXPECT_TRUE(waitForEnd(daemon, id)) << "it starts by itself when there is room";
  EXPECT_EQ(daemon.status(id), JOB_DONE);
}

TEST(Daemon, AJobWithoutRoomOnItsVolumeWaitsAndSaysSo) {
  const DaemonRoot root;
  // Takes no room itself; its results might.
  kxtest::writeFile(root.media("vast.mp4"), "");
  fs::resize_file(root.media("vast.mp4"), uintmax_t{1} << 43);
  makeClip(root.media("small.mp4"), 160, 120);
  DaemonRun daemon(root);
  const int64_t vast = daemon.add(root.media("vast.mp4"));
  const int64_t small = daemon.add(root.media("small.mp4"));
  ASSERT_TRUE(waitForEnd(daemon, small)) << "the next one is not kept waiting";
  EXPECT_EQ(daemon.show(vast).at("status"), JOB_WAITING);
  EXPECT_THAT(std::string(daemon.show(vast).at("waitsFor")),
              testing::StartsWith("room on its volume: "));
  EXPECT_FALSE(daemon.show(small).contains("waitsFor"));
  const std::string log = daemon.log();
  const std::string line = "vast.mp4 waits for room on its volume: ";
  ASSERT_NE(log.find(line), std::string::npos);
  EXPECT_EQ(log.find(line), log.rfind(line)) << "told once";
}

TEST(Daemon, ChangedLimitsHoldAfterARestart) {
  const DaemonRoot root;
  int applied = 0;
  {
    DaemonRun daemon(root);
    const auto answer = daemon.ask(KX_CMD_SET_CPU_LIMIT, 37);
    EXPECT_EQ(numberOf(*answer, 2), 37);
    applied = numberOf(*answer, 1);
    daemon.ask(KX_CMD_SET_MEM_LIMIT, 300000);
    daemon.end(SIGTERM);
  }
  const std::string conf = readFile(root / "etc/config/medialibrary.conf");
  EXPECT_NE(conf.find("37"), std::string::npos) << conf;
  EXPECT_NE(conf.find("300000"), std::string::npos) << conf;
  EXPECT_NE(conf.find("MlsDataDir"), std::string::npos) << "the rest of the file stays";
  const DaemonRun again(root);
  if (applied == 0) {
    EXPECT_EQ(numberOf(*again.ask(KX_CMD_GET_CPU_LIMIT), 2), 37);
  }
}

TEST(Daemon, TwoOnOneRootAreRefused) {
  const DaemonRoot root;
  DaemonRun first(root);
  ChildProcess::Options options;
  options.stderrFile = root / "second.log";
  ChildProcess second = ChildProcess::spawn(
      {kDaemon, "--foreground", "--root", root.path(), "--socket", root / "other.sock"}, options);
  const auto status = second.waitFor(20s);
  ASSERT_TRUE(status);
  EXPECT_EQ(WEXITSTATUS(*status), 1);
  EXPECT_NE(readFile(root / "second.log").find("process " + std::to_string(first.pid())),
            std::string::npos)
      << readFile(root / "second.log");
  EXPECT_EQ(numberOf(*first.ask(KX_CMD_GET_SVR_STATUS), 1), SVR_RUNNING);
}

TEST(Daemon, DetachesAndWritesItsPidAndItsLog) {
  const DaemonRoot root;
  // The end of its output tells that it serves.
  ASSERT_TRUE(run({kDaemon, "--root", root.path()}));
  EXPECT_TRUE(fs::exists(root / "run/xcode/control.sock"));
  const pid_t pid = atoi(readFile(root / "run/xcode/xcoded.lock").c_str());
  ASSERT_TRUE(processRuns(pid));
  EXPECT_NE(getsid(pid), getsid(0));
  EXPECT_EQ(fs::status(root / "var/lib/xcode/jobs.db").permissions() & fs::perms(0022),
            fs::perms::none);
  EXPECT_TRUE(waitUntil([&] {
    return readFile(root / "var/log/xcode/xcoded.log").find("serving on") != std::string::npos;
  }));
  kill(pid, SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return !processRuns(pid); }));
}

TEST(Daemon, StaysSmallWithALongQueue) {
  const DaemonRoot root;
  root.configure("MIN_FREE_MB=1000000000\n");  // nothing starts
  {
    KxTransDBMgr* store = KxTransDBMgr::getInstance();
    fs::create_directories(root / "var/lib/xcode");
    ASSERT_EQ(store->init(root / "var/lib/xcode/jobs.db"), 0);
    ASSERT_EQ(store->exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE "
                          "i < 100000) INSERT INTO JobTable (SrcPath, DstPath, JobFlag, Rank) "
                          "SELECT '/share/Video/a folder/film number ' || i || '.mp4', '', 1, i "
                          "FROM n"),
              0);
    store->uninit();
  }
  const DaemonRun daemon(root);
  for (int offset = 0; offset < 100000; offset += 20000) {
    const auto answer = daemon.ask(KX_CMD_QUERY_JOB, offset);
    ASSERT_TRUE(answer);
    EXPECT_EQ(numberOf(*answer, 2), 100000);
    EXPECT_EQ(jsonOf(*answer).at(0).at("rank"), offset + 1);
  }
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(daemon.ask(KX_CMD_GET_SVR_STATUS));
  EXPECT_LT(residentKb(daemon.pid()), memoryLimitKb(80));
}

TEST(Daemon, StaysSmallWhenIdle) {
  const DaemonRoot root;
  makeClip(root.media("a.mp4"), 160, 120);
  const DaemonRun daemon(root);
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(daemon.ask(KX_CMD_GET_SVR_STATUS));
  EXPECT_LT(residentKb(daemon.pid()), memoryLimitKb(40));
  const int64_t id = daemon.add(root.media("a.mp4"), {{"jobFlag", 127}});
  ASSERT_TRUE(waitForEnd(daemon, id));
  EXPECT_EQ(daemon.status(id), JOB_DONE) << daemon.show(id);
  EXPECT_TRUE(waitUntil([&] { return residentKb(daemon.pid()) < memoryLimitKb(40); }))
      << "also after work: " << residentKb(daemon.pid()) << " kB";
}
