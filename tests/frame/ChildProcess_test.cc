#include "frame/ChildProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using kxtest::readFile;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::waitUntil;

ChildProcess shell(const std::string& script, const ChildProcess::Options& options = {}) {
  return ChildProcess::spawn({"sh", "-c", script}, options);
}

std::string readAll(int fd) {
  std::string text;
  char buffer[512];
  ssize_t count;
  while ((count = read(fd, buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<size_t>(count));
  return text;
}

std::string outputOf(const std::string& script, ChildProcess::Options options = {}) {
  options.captureStdout = true;
  ChildProcess child = shell(script, options);
  std::string text = readAll(child.stdoutFd());
  EXPECT_EQ(child.wait(), 0);
  return text;
}

bool alive(pid_t pid) {
  if (kill(pid, 0) != 0) return false;
  // A zombie that its new parent has not reaped yet is dead too.
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t state = stat.rfind(") ");
  return state != std::string::npos && stat[state + 2] != 'Z' && stat[state + 2] != 'X';
}

TEST(ChildProcess, ExitCodeIsKeptAfterTheChildWasReaped) {
  ChildProcess child = shell("exit 7");
  ASSERT_TRUE(child.valid());
  EXPECT_EQ(WEXITSTATUS(child.wait()), 7);
  EXPECT_EQ(waitpid(child.pid(), nullptr, WNOHANG), -1) << "the child was not reaped";
  EXPECT_EQ(WEXITSTATUS(*child.poll()), 7);
  EXPECT_EQ(WEXITSTATUS(*child.waitFor(0ms)), 7);
  EXPECT_FALSE(child.signal(SIGTERM));
}

TEST(ChildProcess, PollSaysNothingWhileTheChildRuns) {
  ChildProcess sleeper = ChildProcess::spawn({"sleep", "60"}, {});
  EXPECT_FALSE(sleeper.poll());
  EXPECT_FALSE(sleeper.waitFor(20ms));
  EXPECT_TRUE(sleeper.signal(SIGKILL));
  const auto status = sleeper.waitFor(10s);
  ASSERT_TRUE(status);
  EXPECT_EQ(WTERMSIG(*status), SIGKILL);
}

TEST(ChildProcess, WaitForReturnsAsSoonAsTheChildEnds) {
  ChildProcess child = ChildProcess::spawn({"sleep", "0.05"}, {});
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(child.waitFor(60s));
  EXPECT_LT(std::chrono::steady_clock::now() - before, 20s);
}

TEST(ChildProcess, AProgramThatIsNotThereIsAFailure) {
  RecordingLog log;
  ChildProcess child = ChildProcess::spawn({"/no/such/program"}, {});
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(child.pid(), -1);
  EXPECT_FALSE(child.valid());
  EXPECT_FALSE(child.poll());
  EXPECT_TRUE(log.hasPart("cannot start /no/such/program, errno=2"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
}

TEST(ChildProcess, AnEmptyCommandAndAMissingFolderAreFailures) {
  EXPECT_FALSE(ChildProcess::spawn({}, {}).valid());
  ChildProcess::Options options;
  options.workingFolder = "/no/such/folder";
  EXPECT_FALSE(shell("exit 0", options).valid());
  options.workingFolder.clear();
  options.stderrFile = "/no/such/folder/log";
  EXPECT_FALSE(shell("exit 0", options).valid());
}

TEST(ChildProcess, CapturesStandardOutputToItsEnd) {
  EXPECT_EQ(outputOf("printf 'one\\ntwo'"), "one\ntwo");
}

TEST(ChildProcess, WritesStandardErrorIntoAFileThatItEmptiesFirst) {
  TempDir dir;
  kxtest::writeFile(dir / "log", "an older and much longer text");
  ChildProcess::Options options;
  options.stderrFile = dir / "log";
  EXPECT_EQ(outputOf("echo out; echo err >&2", options), "out\n");
  EXPECT_EQ(readFile(dir / "log"), "err\n");
}

TEST(ChildProcess, AddsVariablesToTheEnvironmentAndReplacesThem) {
  setenv("KX_TEST_KEPT", "kept", 1);
  setenv("KX_TEST_REPLACED", "old", 1);
  ChildProcess::Options options;
  options.extraEnv = {"KX_TEST_REPLACED=new", "KX_TEST_ADDED=a=b"};
  EXPECT_EQ(outputOf("echo $KX_TEST_KEPT $KX_TEST_REPLACED $KX_TEST_ADDED", options),
            "kept new a=b\n");
}

TEST(ChildProcess, RunsInTheFolderAskedFor) {
  TempDir dir;
  ChildProcess::Options options;
  options.workingFolder = std::filesystem::canonical(dir.path()).string();
  EXPECT_EQ(outputOf("pwd -P", options), options.workingFolder + "\n");
}

TEST(ChildProcess, HasNoDescriptorsButTheStandardOnes) {
  const int leaking = open("/dev/zero", O_RDONLY);  // without close-on-exec
  ASSERT_GE(leaking, 3);
  // The listing program has one descriptor open: the folder it reads.
  EXPECT_EQ(outputOf("ls /proc/self/fd | wc -l"), "4\n");
  EXPECT_EQ(outputOf("readlink /proc/self/fd/0"), "/dev/null\n");
  close(leaking);
}

TEST(ChildProcess, StartsEvenWhenTheStandardDescriptorsAreClosed) {
  const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 20);
  close(STDIN_FILENO);
  EXPECT_EQ(outputOf("echo fine; readlink /proc/self/fd/0"), "fine\n/dev/null\n");
  dup2(saved, STDIN_FILENO);
  close(saved);
}

TEST(ChildProcess, StartsWithDefaultSignalsWhateverTheParentIgnoresOrBlocks) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  EXPECT_EQ(outputOf("grep -E '^Sig(Blk|Ign)' /proc/self/status | tr -d '[:space:]'"),
            "SigBlk:0000000000000000SigIgn:0000000000000000");
  sigset_t now;
  pthread_sigmask(SIG_UNBLOCK, &term, &now);
  EXPECT_EQ(sigismember(&now, SIGTERM), 1) << "the caller's own mask was changed";
}

TEST(ChildProcess, LeadsAProcessGroupOfItsOwn) {
  ChildProcess child = ChildProcess::spawn({"sleep", "60"}, {});
  EXPECT_EQ(getpgid(child.pid()), child.pid());
}

TEST(ChildProcess, TerminateAsksFirstAndKillsAfterTheGraceTime) {
  TempDir dir;
  ChildProcess polite = ChildProcess::spawn({"sleep", "60"}, {});
  EXPECT_EQ(WTERMSIG(polite.terminate(10s)), SIGTERM);

  ChildProcess::Options options;
  options.captureStdout = true;
  ChildProcess stubborn = shell("trap '' TERM; echo ready; while :; do sleep 60; done", options);
  char ready[6];
  ASSERT_EQ(read(stubborn.stdoutFd(), ready, sizeof ready), 6);
  EXPECT_EQ(WTERMSIG(stubborn.terminate(50ms)), SIGKILL);
}

TEST(ChildProcess, TerminateTakesTheWholeProcessGroup) {
  ChildProcess::Options options;
  options.captureStdout = true;
  ChildProcess child = shell("sh -c 'trap \"\" TERM; echo $$; exec sleep 60' & wait", options);
  char text[32] = {};
  ASSERT_GT(read(child.stdoutFd(), text, sizeof text - 1), 0);
  const pid_t grandchild = std::stoi(text);
  child.terminate(10s);
  EXPECT_TRUE(waitUntil([&] { return !alive(grandchild); }));
}

TEST(ChildProcess, TheDestructorStopsAndReapsTheChild) {
  pid_t pid;
  {
    ChildProcess child = ChildProcess::spawn({"sleep", "60"}, {});
    pid = child.pid();
    ASSERT_TRUE(alive(pid));
  }
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(ChildProcess, MovingHandsTheChildOnAndStopsTheOneHeldBefore) {
  ChildProcess first = ChildProcess::spawn({"sleep", "60"}, {});
  ChildProcess second = ChildProcess::spawn({"sleep", "60"}, {});
  const pid_t firstPid = first.pid();
  const pid_t secondPid = second.pid();
  first = std::move(second);
  EXPECT_EQ(first.pid(), secondPid);
  EXPECT_EQ(waitpid(firstPid, nullptr, WNOHANG), -1);
  ChildProcess third(std::move(first));
  EXPECT_EQ(third.pid(), secondPid);
  EXPECT_TRUE(alive(secondPid));
}

TEST(ChildProcess, AdoptsAChildThatWasForkedElsewhere) {
  const pid_t pid = fork();
  if (pid == 0) _exit(9);
  ChildProcess child = ChildProcess::adopt(pid);
  const auto status = child.waitFor(10s);
  ASSERT_TRUE(status);
  EXPECT_EQ(WEXITSTATUS(*status), 9);
  EXPECT_FALSE(ChildProcess::adopt(-1).valid());
}

TEST(ChildProcess, AChildReapedByOthersCountsAsFailed) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  ChildProcess child = ChildProcess::adopt(pid);
  EXPECT_EQ(child.waitFor(10s).value_or(0), ChildProcess::kLostStatus);
}

TEST(ChildProcess, DiesWithTheThreadThatStartedIt) {
  pid_t pid = -1;
  ChildProcess child;
  std::thread launcher([&] {
    child = ChildProcess::spawn({"sleep", "60"}, {});
    pid = child.pid();
  });
  launcher.join();
  ASSERT_GT(pid, 0);
  const auto status = child.waitFor(10s);
  ASSERT_TRUE(status);
  EXPECT_EQ(WTERMSIG(*status), SIGTERM);
}

TEST(ChildProcess, ManyThreadsMayStartChildrenAtOnce) {
  const auto launch = [](int thread) {
    for (int i = 0; i < 10; ++i) {
      ChildProcess child = shell("exit " + std::to_string(thread * 10 + i));
      EXPECT_EQ(WEXITSTATUS(child.wait()), thread * 10 + i);
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) threads.emplace_back(launch, t);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
