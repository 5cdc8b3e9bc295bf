#include "host/ProgramRun.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "KxHostPlatform.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"
#include "tests/support/TestSupport.h"

using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::waitUntil;

namespace {
std::vector<std::string> shell(const std::string& script) {
  return {"/bin/sh", "-c", script};
}
}  // namespace

TEST(ProgramRun, CapturesTheOutputAndTheExitCode) {
  std::string out = "old";
  EXPECT_EQ(MyExec::run(shell("printf 'a\\nb'; exit 3"), out), 3);
  EXPECT_EQ(out, "a\nb");
  EXPECT_EQ(MyExec::run({"/bin/true"}, out), 0);
  EXPECT_EQ(out, "");
}

TEST(ProgramRun, PassesArgumentsWithoutAShell) {
  std::string out;
  EXPECT_EQ(MyExec::run({"/bin/echo", "$(id) *", "'q'; rm"}, out), 0);
  EXPECT_EQ(out, "$(id) * 'q'; rm\n");
}

TEST(ProgramRun, FailsWhenTheProgramIsMissingOrDiesByASignal) {
  const RecordingLog log;
  std::string out;
  EXPECT_NE(MyExec::run({"/no/such/program"}, out), 0);
  EXPECT_NE(MyExec::run({}, out), 0);
  EXPECT_EQ(MyExec::run(shell("kill -9 $$"), out), 128 + SIGKILL);
}

TEST(ProgramRun, TakesOutputThatIsLargerThanAPipe) {
  std::string out;
  EXPECT_EQ(MyExec::run({"head", "-c", "1000000", "/dev/zero"}, out), 0);
  EXPECT_EQ(out.size(), 1000000U);
}

TEST(ProgramRun, GivesAnEmptyStandardInput) {
  std::string out;
  EXPECT_EQ(MyExec::run({"/bin/cat"}, out), 0);
  EXPECT_EQ(out, "");
}

TEST(ProgramRun, EndsAProgramThatExceedsItsTime) {
  const RecordingLog log;
  const auto start = std::chrono::steady_clock::now();
  const ExecResult result =
      kxhost::runProgram(shell("exec sleep 60"), {std::chrono::milliseconds(100), 1000});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_FALSE(kxhost::succeeded(result));
  EXPECT_NE(result.signal, 0);
}

TEST(ProgramRun, EndsAProgramWhenTheWorkThatItIsPartOfHasToEnd) {
  const RecordingLog log;
  const UniqueFd end(eventfd(1, EFD_CLOEXEC));
  const StopSignal stop(end.get());
  std::string out;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_NE(MyExec::run(shell("exec sleep 60"), out), 0);
  // Also one that has closed its output.
  EXPECT_NE(MyExec::run(shell("exec sleep 60 >&-"), out), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  // What cleans up after the work is not part of it.
  EXPECT_TRUE(kxhost::succeeded(kxhost::runProgram(shell("sleep 0.1"))));
}

TEST(ProgramRun, WaitsForAProgramThatHasClosedItsOutput) {
  std::string out;
  EXPECT_EQ(MyExec::run(shell("echo x; exec >&-; sleep 0.1; exit 4"), out), 4);
  EXPECT_EQ(out, "x\n");
}

TEST(ProgramRun, EndsAProgramThatWritesWithoutEnd) {
  const RecordingLog log;
  const ExecResult result =
      kxhost::runProgram({"cat", "/dev/zero"}, {std::chrono::seconds(20), 5000});
  EXPECT_FALSE(kxhost::succeeded(result));
  EXPECT_LT(result.out.size(), 20000U);
}

TEST(ProgramRun, DoesNotWaitForWhatAProgramLeavesInTheBackground) {
  const auto start = std::chrono::steady_clock::now();
  std::string out;
  EXPECT_EQ(MyExec::run(shell("sleep 60 & echo $!"), out), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  kill(static_cast<pid_t>(myatoll(out.c_str())), SIGKILL);
}

TEST(ProgramRun, LeavesOtherChildrenToTheirOwners) {
  const pid_t other = fork();
  if (other == 0) _exit(5);
  std::string out;
  EXPECT_EQ(MyExec::run({"/bin/true"}, out), 0);
  int status = 0;
  EXPECT_EQ(waitpid(other, &status, 0), other);
  EXPECT_EQ(WEXITSTATUS(status), 5);
}

TEST(ProgramRun, Exec2TellsExitStatusAndSignal) {
  const RecordingLog log;
  ExecResult result;
  const char* const exits[] = {"/bin/sh", "-c", "echo out; exit 200", nullptr};
  EXPECT_EQ(MyUtil_Exec2(result, true, exits), 0);
  EXPECT_NE(result.ran, 0);
  EXPECT_EQ(result.exitStatus, 200);
  EXPECT_EQ(result.out, "out\n");
  const char* const dies[] = {"/bin/sh", "-c", "kill -15 $$", nullptr};
  EXPECT_NE(MyUtil_Exec2(result, true, dies), 0);
  EXPECT_EQ(result.signal, SIGTERM);
  const char* const missing[] = {"/no/such/program", nullptr};
  EXPECT_NE(MyUtil_Exec2(result, true, missing), 0);
  EXPECT_EQ(result.ran, 0);
  EXPECT_NE(MyUtil_Exec2(result, true, nullptr), 0);
}

TEST(ProgramRun, Exec2StartsWithoutWaiting) {
  const TempDir dir;
  ExecResult result;
  const std::string script = "sleep 0.2; touch " + (dir / "done");
  const char* const argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  EXPECT_EQ(MyUtil_Exec2(result, false, argv), 0);
  EXPECT_FALSE(std::filesystem::exists(dir / "done"));
  EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(dir / "done"); }));
}

TEST(ProgramRun, ExecSyncReturnsTheOutput) {
  const RecordingLog log;
  std::string out;
  const char* const argv[] = {"/bin/sh", "-c", "echo text", nullptr};
  EXPECT_EQ(MyUtil_ExecSyncWithOutputString(out, argv), 0);
  EXPECT_EQ(out, "text\n");
  const char* const fails[] = {"/bin/sh", "-c", "exit 1", nullptr};
  EXPECT_NE(MyUtil_ExecSyncWithOutputString(out, fails), 0);
}
