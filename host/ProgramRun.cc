#include "host/ProgramRun.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <future>
#include <thread>

#include "frame/ChildProcess.h"
#include "frame/Log.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"

namespace kxhost {
namespace {

constexpr const char* kLogSource = "ProgramRun";
constexpr std::chrono::milliseconds kGrace{500};
constexpr RunLimits kPartOfWork = {.endsWithWork = true};

// Reads what the pipe holds now. @return false at its end or beyond the limit.
bool drain(int fd, std::string& out, size_t limit) {
  std::array<char, 8192> buffer;
  for (;;) {
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN;
    if (count == 0) return false;
    out.append(buffer.data(), static_cast<size_t>(count));
    if (out.size() > limit) return false;
  }
}

// Collects the output until the program ends: something it left in the background may keep the
// pipe open for ever. @return false when a limit was exceeded.
bool collectOutput(ChildProcess& child, const RunLimits& limits, std::string& out) {
  const auto deadline = std::chrono::steady_clock::now() + limits.time;
  const int stopFd = limits.endsWithWork ? StopSignal::fd() : -1;
  int outFd = child.stdoutFd();
  fcntl(outFd, F_SETFL, O_NONBLOCK);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    std::array<pollfd, 3> fds = {
        {{outFd, POLLIN, 0}, {child.pidFd(), POLLIN, 0}, {stopFd, POLLIN, 0}}};
    const int ready = poll(fds.data(), fds.size(), static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) return false;
    if (ready > 0 && fds[2].revents != 0) return false;
    if (outFd >= 0 && !drain(outFd, out, limits.outputBytes)) outFd = -1;
    if (out.size() > limits.outputBytes) return false;
    if (ready > 0 && fds[1].revents != 0) return true;
    if (outFd < 0 && child.pidFd() < 0) return child.waitFor(left).has_value();
  }
}

}  // namespace

ExecResult runProgram(const std::vector<std::string>& argv, const RunLimits& limits) {
  ExecResult result;
  if (argv.empty()) return result;
  ChildProcess::Options options;
  options.captureStdout = true;
  ChildProcess child = ChildProcess::spawn(argv, options);
  if (!child.valid()) return result;
  result.ran = 1;
  const bool inTime = collectOutput(child, limits, result.out);
  if (!inTime) KX_LOG("%s is ended before it is done\n", argv[0].c_str());
  const int status = inTime ? child.wait() : child.terminate(kGrace);
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  if (!inTime && result.signal == 0) result.signal = SIGTERM;
  return result;
}

bool succeeded(const ExecResult& result) {
  return result.ran != 0 && result.signal == 0 && result.exitStatus == 0;
}

namespace {

std::vector<std::string> toVector(const char* const* argv) {
  std::vector<std::string> words;
  for (; argv != nullptr && *argv != nullptr; ++argv) words.emplace_back(*argv);
  return words;
}

// A child dies with the thread that started it, so the thread that is not to wait for it
// leaves both starting and reaping to another one.
ExecResult startInBackground(const std::vector<std::string>& argv) {
  std::promise<bool> started;
  std::future<bool> answer = started.get_future();
  std::thread([argv, promise = std::move(started)]() mutable {
    ChildProcess child = ChildProcess::spawn(argv, {});
    promise.set_value(child.valid());
    if (child.valid()) child.wait();
  }).detach();
  ExecResult result;
  result.ran = answer.get() ? 1 : 0;
  return result;
}

}  // namespace
}  // namespace kxhost

int MyUtil_Exec2(ExecResult& r, bool wait, const char* const* argvNullEnded) {
  const std::vector<std::string> argv = kxhost::toVector(argvNullEnded);
  r = {};
  if (argv.empty()) return 1;
  r = wait ? kxhost::runProgram(argv, kxhost::kPartOfWork) : kxhost::startInBackground(argv);
  return r.ran != 0 && r.signal == 0 ? 0 : 1;
}

int MyUtil_ExecSyncWithOutputString(std::string& out, const char* const* argvNullEnded) {
  const ExecResult result = kxhost::runProgram(kxhost::toVector(argvNullEnded));
  out = result.out;
  return kxhost::succeeded(result) ? 0 : 1;
}

int MyExec::run(const std::vector<std::string>& argv, std::string& out) {
  const ExecResult result = kxhost::runProgram(argv, kxhost::kPartOfWork);
  out = result.out;
  if (result.ran == 0) return 127;
  return result.signal != 0 ? 128 + result.signal : result.exitStatus;
}
