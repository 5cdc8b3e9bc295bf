#include "frame/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <thread>

#include "frame/ChildSetup.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "ChildProcess";

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kDestructorGrace{1000};
// Only used when no descriptor is left for a pidfd.
constexpr milliseconds kStepWithoutPidFd{5};

// The descriptors that a new program gets, as its descriptors 0 to 3.
constexpr int kErrorPipe = 3;
// Above them, so that none of them is overwritten while they are put in place.
constexpr int kFirstSpareFd = 10;

// Everything the child needs, made before the fork: it shares its parent's memory and may not
// allocate.
struct ChildPlan {
  pid_t parent;
  char* const* argv;
  char* const* env;
  const char* workingFolder;
  int stdinFd;
  int stdoutFd;  // -1: inherited
  int stderrFd;  // -1: inherited
  int errorPipe;
};

[[noreturn]] void reportAndLeave(int error) {
  [[maybe_unused]] const ssize_t written = write(kErrorPipe, &error, sizeof error);
  _exit(127);
}

bool redirect(int from, int to) {
  return from < 0 || dup2(from, to) >= 0;
}

[[noreturn]] void becomeProgram(const ChildPlan& plan) {
  if (dup2(plan.errorPipe, kErrorPipe) < 0) _exit(127);
  fcntl(kErrorPipe, F_SETFD, FD_CLOEXEC);
  if (!redirect(plan.stdinFd, STDIN_FILENO) || !redirect(plan.stdoutFd, STDOUT_FILENO) ||
      !redirect(plan.stderrFd, STDERR_FILENO))
    reportAndLeave(errno);
  close_range(kErrorPipe + 1, UINT_MAX, 0);
  if (setpgid(0, 0) != 0) reportAndLeave(errno);
  switch (childsetup::armDeathSignal(plan.parent)) {
  case childsetup::DeathSignal::Armed:
    break;
  case childsetup::DeathSignal::PrctlFailed:
    reportAndLeave(errno);
  case childsetup::DeathSignal::ParentGone:
    _exit(127);
  }
  if (*plan.workingFolder != '\0' && chdir(plan.workingFolder) != 0) reportAndLeave(errno);
  childsetup::resetSignals();
  execvpe(plan.argv[0], plan.argv, plan.env);
  reportAndLeave(errno);
}

// vfork costs the same whatever the size of this process; nothing but becomeProgram() runs in
// the child.
__attribute__((noinline)) pid_t startChild(const ChildPlan& plan) {
  const pid_t pid = vfork();
  if (pid == 0) becomeProgram(plan);
  return pid;
}

std::vector<char*> pointersTo(const std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

std::string nameOf(const std::string& assignment) {
  return assignment.substr(0, assignment.find('=') + 1);
}

// The environment with the additions, which replace variables of the same name.
std::vector<std::string> environmentWith(const std::vector<std::string>& additions) {
  std::vector<std::string> result;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string name = nameOf(*entry);
    const bool replaced = std::any_of(additions.begin(), additions.end(),
                                      [&](const auto& added) { return nameOf(added) == name; });
    if (!replaced) result.emplace_back(*entry);
  }
  result.insert(result.end(), additions.begin(), additions.end());
  return result;
}

// Moves a descriptor out of the range that a child's descriptors are placed in.
UniqueFd moveUp(UniqueFd fd) {
  if (!fd || fd.get() >= kFirstSpareFd) return fd;
  return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, kFirstSpareFd));
}

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
  explicit operator bool() const { return readEnd && writeEnd; }
};

Pipe makePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return {};
  return {UniqueFd(ends[0]), moveUp(UniqueFd(ends[1]))};
}

UniqueFd openHigh(const char* path, int flags) {
  return moveUp(UniqueFd(open(path, flags | O_CLOEXEC, 0666)));
}

// The child's own descriptors; what is not asked for stays empty.
struct Redirections {
  UniqueFd input;
  UniqueFd errorOutput;
  Pipe output;
  Pipe failure;  // carries errno when the program cannot be started

  bool open(const ChildProcess::Options& options) {
    input = openHigh("/dev/null", O_RDONLY);
    failure = makePipe();
    if (!input || !failure) return false;
    if (options.captureStdout && !(output = makePipe())) return false;
    if (options.stderrFile.empty()) return true;
    errorOutput = openHigh(options.stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
    return static_cast<bool>(errorOutput);
  }
};

// What kept the program from starting, 0 when it runs.
int startError(int errorPipe) {
  int error = 0;
  ssize_t count;
  do count = read(errorPipe, &error, sizeof error);
  while (count < 0 && errno == EINTR);
  return count == static_cast<ssize_t>(sizeof error) ? error : 0;
}

// Reaps the child and stores its status, unless it may still run (WNOHANG).
void reap(pid_t pid, int flags, std::optional<int>& status) {
  int value = 0;
  pid_t result;
  do result = waitpid(pid, &value, flags);
  while (result < 0 && errno == EINTR);
  if (result > 0) status = value;
  if (result < 0) status = ChildProcess::kLostStatus;
}

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

}  // namespace

ChildProcess ChildProcess::adopt(pid_t pid) {
  ChildProcess child;
  if (pid < 1) return child;
  child.m_pid = pid;
  child.m_ownGroup = getpgid(pid) == pid;
  child.openPidFd();
  return child;
}

ChildProcess ChildProcess::spawn(const std::vector<std::string>& argv, const Options& options) {
  ChildProcess child;
  if (argv.empty()) {
    KX_LOG("empty command\n");
    return child;
  }
  Redirections redirections;
  if (!redirections.open(options)) {
    const int error = errno;
    KX_LOG_ERRNO("cannot open descriptors for %s", argv[0].c_str());
    errno = error;
    return child;
  }
  const std::vector<char*> words = pointersTo(argv);
  const std::vector<std::string> environment = environmentWith(options.extraEnv);
  const std::vector<char*> variables = pointersTo(environment);
  const ChildPlan plan{getpid(),
                       words.data(),
                       variables.data(),
                       options.workingFolder.c_str(),
                       redirections.input.get(),
                       redirections.output.writeEnd.get(),
                       redirections.errorOutput.get(),
                       redirections.failure.writeEnd.get()};
  pid_t pid;
  {
    const childsetup::AllSignalsBlocked blocked;
    pid = startChild(plan);
  }
  if (pid < 0) {
    KX_LOG_ERRNO("cannot fork for %s", argv[0].c_str());
    return child;
  }
  child = adopt(pid);
  child.m_ownGroup = true;
  redirections.failure.writeEnd.reset();
  if (const int error = startError(redirections.failure.readEnd.get()); error != 0) {
    child.wait();
    child = ChildProcess();
    errno = error;
    KX_LOG_ERRNO("cannot start %s", argv[0].c_str());
    return child;
  }
  child.m_stdout = std::move(redirections.output.readEnd);
  return child;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept {
  takeOver(other);
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    release();
    takeOver(other);
  }
  return *this;
}

ChildProcess::~ChildProcess() {
  release();
}

void ChildProcess::takeOver(ChildProcess& other) noexcept {
  m_pid = std::exchange(other.m_pid, -1);
  m_ownGroup = std::exchange(other.m_ownGroup, false);
  m_pidFd = std::move(other.m_pidFd);
  m_stdout = std::move(other.m_stdout);
  m_status = std::exchange(other.m_status, std::nullopt);
}

void ChildProcess::release() noexcept {
  if (valid() && !m_status) terminate(kDestructorGrace);
}

void ChildProcess::openPidFd() {
  m_pidFd.reset(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
}

// True when the child is a zombie or gone; it is not reaped here.
bool ChildProcess::waitForEnd(milliseconds limit) {
  const bool endless = limit.count() < 0;
  const auto deadline = Clock::now() + (endless ? milliseconds(0) : limit);
  for (;;) {
    if (!m_pidFd) openPidFd();
    if (m_pidFd) {
      pollfd waited{m_pidFd.get(), POLLIN, 0};
      const int ready = ::poll(&waited, 1, endless ? -1 : remainingMs(deadline));
      if (ready > 0) return true;
    } else {
      siginfo_t info{};
      const int result =
          waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT);
      if (result != 0 || info.si_pid == m_pid) return true;
      std::this_thread::sleep_for(kStepWithoutPidFd);
    }
    if (!endless && Clock::now() >= deadline) return false;
  }
}

std::optional<int> ChildProcess::poll() {
  if (valid() && !m_status) reap(m_pid, WNOHANG, m_status);
  return m_status;
}

std::optional<int> ChildProcess::waitFor(milliseconds limit) {
  if (!valid() || m_status) return m_status;
  if (limit.count() < 0) return wait();
  if (!waitForEnd(limit)) return std::nullopt;
  reap(m_pid, 0, m_status);
  return m_status;
}

int ChildProcess::wait() {
  if (!valid()) return kLostStatus;
  if (!m_status) reap(m_pid, 0, m_status);
  return *m_status;
}

int ChildProcess::terminate(milliseconds grace) {
  if (!valid() || m_status) return m_status.value_or(kLostStatus);
  signal(SIGTERM);
  return killAfter(grace);
}

int ChildProcess::killAfter(milliseconds grace) {
  if (!valid() || m_status) return m_status.value_or(kLostStatus);
  waitForEnd(grace);
  // Also when it ended in time: what it started may have outlived it in its group.
  if (m_ownGroup || !poll()) signal(SIGKILL);
  return wait();
}

bool ChildProcess::signal(int number) {
  if (!valid() || m_status) return false;
  return kill(m_ownGroup ? -m_pid : m_pid, number) == 0;
}
