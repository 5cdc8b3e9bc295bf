#include "resources/ChildWatch.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <tuple>

#include "KxHostPlatform.h"
#include "KxResMgr2.h"
#include "Misc.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Time that a child gets to end by itself, so that a stop is over within a second.
constexpr milliseconds kGrace{700};
// Progress is asked for at this interval, so never for a child that ends sooner.
constexpr milliseconds kTick{1000};
constexpr int kDefaultStallSeconds = 600;

// Tells whether anything moved since it was last asked.
class ProgressWatch {
 public:
  ProgressWatch(const WatchPoints& points, JobRun& run)
      : m_points(points), m_run(run), m_files(points.files.size()) {}

  void look() {
    const bool percentMoved = lookAtPercent();
    const bool filesMoved = lookAtFiles();
    if (percentMoved || filesMoved) m_lastMove = steady_clock::now();
  }
  bool isStalled(seconds limit) const { return steady_clock::now() - m_lastMove >= limit; }

 private:
  using FileState = std::tuple<off_t, time_t, long>;

  bool lookAtPercent() {
    if (!m_points.percent) return false;
    const int percent = m_points.percent();
    m_run.showProgress(percent);
    return std::exchange(m_percent, percent) != percent;
  }

  bool lookAtFiles() {
    bool moved = false;
    for (size_t i = 0; i < m_files.size(); ++i) {
      struct stat info;
      if (stat(m_points.files[i].c_str(), &info) != 0) continue;
      const FileState state{info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec};
      if (std::exchange(m_files[i], state) != state) moved = true;
    }
    return moved;
  }

  const WatchPoints& m_points;
  JobRun& m_run;
  std::vector<FileState> m_files;
  int m_percent = 0;
  steady_clock::time_point m_lastMove = steady_clock::now();
};

enum class Wake { ChildEnded, RunEnds, Tick };

// Without a pidfd or a notification the wait is cut into short steps instead.
Wake waitForSomething(JobRun& run, ChildProcess& child) {
  constexpr milliseconds kStep{20};
  const auto tick = steady_clock::now() + kTick;
  const bool haveBoth = child.pidFd() >= 0 && run.endFd() >= 0;
  while (true) {
    if (child.poll()) return Wake::ChildEnded;
    if (run.mustEnd()) return Wake::RunEnds;
    const auto left = std::chrono::ceil<milliseconds>(tick - steady_clock::now());
    if (left.count() <= 0) return Wake::Tick;
    std::array<pollfd, 2> ends = {pollfd{child.pidFd(), POLLIN, 0}, pollfd{run.endFd(), POLLIN, 0}};
    poll(ends.data(), ends.size(),
         static_cast<int>((haveBoth ? left : std::min(left, kStep)).count()));
  }
}

void endChild(ChildProcess& child) {
  if (!child.signal(SIGTERM)) {
    KX_RUNNER_LOG("send signal SIGTERM to pid(%d) fail, errno=%d, strerror=%s\n", child.pid(),
                  errno, strerror(errno));
  }
  child.killAfter(kGrace);
}

ChildEnd endOf(int status) {
  const int result = miscAnalysisRet(status);
  return {result == 0 ? ChildEnd::Kind::Success : ChildEnd::Kind::Failure, result,
          WIFSIGNALED(status)};
}

}  // namespace

seconds stallLimit() {
  const std::string file = miscSystemPath("/etc/config/medialibrary.conf");
  const int value =
      MyUtil_GetKeyInt("TRANSCODESVR", "STALL_SEC", kDefaultStallSeconds, file.c_str());
  return seconds(value > 0 ? value : kDefaultStallSeconds);
}

ShownChild::ShownChild(JobRun& run, pid_t pid) : m_run(run) {
  m_run.showPid(pid);
  KxResMgr2* manager = KxResMgr2::getInstance();
  if (manager->cGroupIsUnified()) manager->cGroupAddPid(pid);
}

ShownChild::~ShownChild() {
  m_run.showPid(-1);
}

std::string ChildEnd::text() const {
  switch (kind) {
  case Kind::Success:
    return "";
  case Kind::Stalled:
    return "made no progress";
  case Kind::Stopped:
    return "was stopped";
  default:
    return (bySignal ? "was ended by signal " : "ended with ") + std::to_string(result);
  }
}

void stopChild(ChildProcess& child) {
  KX_RUNNER_LOG("someone stop the transcode unit, so we need to kill pid %d\n", child.pid());
  endChild(child);
}

ChildEnd followChild(JobRun& run, pid_t pid, const WatchPoints& points) {
  ChildProcess child = ChildProcess::adopt(pid);
  const ShownChild shown(run, pid);
  ProgressWatch progress(points, run);
  const seconds limit = stallLimit();
  while (true) {
    const Wake wake = waitForSomething(run, child);
    if (wake == Wake::ChildEnded) return endOf(child.wait());
    if (wake == Wake::RunEnds) {
      stopChild(child);
      return {ChildEnd::Kind::Stopped, miscAnalysisRet(child.wait()), false};
    }
    progress.look();
    if (!progress.isStalled(limit)) continue;
    KX_RUNNER_LOG_LEVEL(2, "pid %d made no progress for %d seconds, so we kill it\n", pid,
                        static_cast<int>(limit.count()));
    endChild(child);
    return {ChildEnd::Kind::Stalled, miscAnalysisRet(child.wait()), false};
  }
}

}  // namespace runner
