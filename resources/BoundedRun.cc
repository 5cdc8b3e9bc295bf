#include "resources/BoundedRun.h"

#include <csignal>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "frame/Log.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"

static constexpr const char* kLogSource = "KxResMgr2";

namespace {

// Beyond this many nothing is run any more, so that a broken driver cannot fill the process
// with waiting threads.
constexpr int kMaxStuck = 8;
// What a killed program gets to disappear.
constexpr auto kAfterKill = std::chrono::seconds(2);

std::atomic<int> gStuck{0};

// The children are not reaped while their thread still waits for them, so the numbers are
// theirs. A child that leads a group of its own goes with all of it.
void killChildrenOfThread(pid_t tid) {
  std::ifstream children("/proc/self/task/" + std::to_string(tid) + "/children");
  for (pid_t pid = 0; children >> pid;) {
    if (pid <= 1) continue;
    kill(getpgid(pid) == pid ? -pid : pid, SIGKILL);
  }
}

}  // namespace

struct BoundedRun::State {
  std::vector<std::string> argv;
  UniqueFd stopFd;  // of whoever asked for the run
  std::mutex mutex;
  std::condition_variable changed;
  pid_t tid = -1;
  int result = 1;
  std::string out;
  bool isDone = false;
  bool isGivenUp = false;

  void run() {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      tid = static_cast<pid_t>(syscall(SYS_gettid));
    }
    std::string text;
    const StopSignal stop(stopFd.get());
    const int status = MyExec::run(argv, text);
    const std::lock_guard<std::mutex> lock(mutex);
    result = status;
    out = std::move(text);
    isDone = true;
    if (isGivenUp) --gStuck;
    changed.notify_all();
  }

  bool waitUntil(std::unique_lock<std::mutex>& lock,
                 std::chrono::steady_clock::time_point deadline) {
    return changed.wait_until(lock, deadline, [this] { return isDone; });
  }
};

BoundedRun::BoundedRun(std::vector<std::string> argv, std::chrono::milliseconds limit)
    : m_deadline(std::chrono::steady_clock::now() + limit) {
  if (gStuck >= kMaxStuck) {
    KX_LOG("too many programs do not answer, %s is not run\n", argv.front().c_str());
    return;
  }
  auto state = std::make_shared<State>();
  state->argv = std::move(argv);
  state->stopFd.reset(fcntl(StopSignal::fd(), F_DUPFD_CLOEXEC, 0));
  try {
    std::thread([state] { state->run(); }).detach();
    m_state = std::move(state);
  } catch (const std::system_error& error) {
    KX_LOG("can not create a thread: %s\n", error.what());
  }
}

BoundedRun::~BoundedRun() = default;
BoundedRun::BoundedRun(BoundedRun&&) noexcept = default;

int BoundedRun::wait(std::string& out) {
  if (!m_state) return 1;
  State& state = *m_state;
  std::unique_lock<std::mutex> lock(state.mutex);
  if (state.waitUntil(lock, m_deadline)) {
    out = std::move(state.out);
    return state.result;
  }
  KX_LOG("%s does not answer, we stop it\n", state.argv.front().c_str());
  if (state.tid > 0) killChildrenOfThread(state.tid);
  if (!state.waitUntil(lock, std::chrono::steady_clock::now() + kAfterKill)) {
    state.isGivenUp = true;
    ++gStuck;
  }
  return 1;
}

int BoundedRun::stuckCount() {
  return gStuck;
}
