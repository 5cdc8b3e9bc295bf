#include "resources/ChildWatch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
// Waits are cut into such steps where there is no descriptor to wait for.
constexpr milliseconds kStep{20};
constexpr int kDefaultStallSeconds = 600;

// Tells whether anything moved since it was last asked.
class ProgressWatch {
 public:
  explicit ProgressWatch(WatchPoints points)
      : m_points(std::move(points)), m_files(m_points.files.size()) {}

  void look() {
    const bool percentMoved = lookAtPercent();
    const bool filesMoved = lookAtFiles();
    if (percentMoved || filesMoved) m_lastMove = steady_clock::now();
  }
  // As last asked; nothing when nobody tells.
  std::optional<int> percent() const {
    return m_points.percent ? std::optional<int>(m_percent) : std::nullopt;
  }
  bool isStalled(seconds limit) const { return steady_clock::now() - m_lastMove >= limit; }

 private:
  using FileState = std::tuple<off_t, time_t, long>;

  bool lookAtPercent() {
    if (!m_points.percent) return false;
    const int percent = m_points.percent();
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

  const WatchPoints m_points;
  std::vector<FileState> m_files;
  int m_percent = 0;
  steady_clock::time_point m_lastMove = steady_clock::now();
};

enum class Wake { ChildEnded, RunEnds, Tick };

// Waits until a child ended, the run has to end, or it is time to look at the progress. Without
// a pidfd or a notification the wait is cut into short steps instead.
Wake waitForSomething(JobRun& run, const std::vector<ChildProcess*>& children) {
  const auto tick = steady_clock::now() + kTick;
  std::vector<pollfd> ends = {{run.endFd(), POLLIN, 0}};
  for (const ChildProcess* child : children) ends.push_back({child->pidFd(), POLLIN, 0});
  const bool haveAll = std::ranges::all_of(ends, [](const pollfd& end) { return end.fd >= 0; });
  while (true) {
    if (std::ranges::any_of(children,
                            [](ChildProcess* child) { return child->poll().has_value(); }))
      return Wake::ChildEnded;
    if (run.mustEnd()) return Wake::RunEnds;
    const auto left = std::chrono::ceil<milliseconds>(tick - steady_clock::now());
    if (left.count() <= 0) return Wake::Tick;
    poll(ends.data(), ends.size(),
         static_cast<int>((haveAll ? left : std::min(left, kStep)).count()));
  }
}

void waitForOutput(const JobRun& run, const ChildProcess& child, int output) {
  std::array<pollfd, 3> ends = {
      {{output, POLLIN, 0}, {child.pidFd(), POLLIN, 0}, {run.endFd(), POLLIN, 0}}};
  const bool haveAll = child.pidFd() >= 0 && run.endFd() >= 0;
  poll(ends.data(), ends.size(), static_cast<int>((haveAll ? kTick : kStep).count()));
}

// Tells all to end before it waits for any.
void endChildren(const std::vector<ChildProcess*>& children) {
  for (ChildProcess* child : children) {
    if (child->signal(SIGTERM)) continue;
    KX_RUNNER_LOG("send signal SIGTERM to pid(%d) fail, errno=%d, strerror=%s\n", child->pid(),
                  errno, strerror(errno));
  }
  const auto deadline = steady_clock::now() + kGrace;
  for (ChildProcess* child : children) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    child->killAfter(std::max(left, milliseconds(0)));
  }
}

// Ends them because the unit was stopped.
void stopChildren(const std::vector<ChildProcess*>& children) {
  for (const ChildProcess* child : children)
    KX_RUNNER_LOG("someone stop the transcode unit, so we need to kill pid %d\n", child->pid());
  endChildren(children);
}

void limitChild(pid_t pid) {
  KxResMgr2* manager = KxResMgr2::getInstance();
  if (manager->cGroupIsUnified()) manager->cGroupAddPid(pid);
}

ChildEnd endOf(int status) {
  const int result = miscAnalysisRet(status);
  return {result == 0 ? ChildEnd::Kind::Success : ChildEnd::Kind::Failure, result,
          WIFSIGNALED(status)};
}

ChildEnd endStopped(ChildProcess& child) {
  stopChildren({&child});
  return {ChildEnd::Kind::Stopped, miscAnalysisRet(child.wait()), false};
}

// Ends a child that made no progress for the time of stallLimit().
ChildEnd endStalled(ChildProcess& child) {
  KX_RUNNER_LOG_LEVEL(2, "pid %d made no progress for %d seconds, so we kill it\n", child.pid(),
                      static_cast<int>(stallLimit().count()));
  endChildren({&child});
  return {ChildEnd::Kind::Stalled, miscAnalysisRet(child.wait()), false};
}

// By the error of a start that failed.
const char* whatCouldNotBeHad(int error) {
  switch (error) {
  case EMFILE:
  case ENFILE:
    return "create pipe error\n";
  case EAGAIN:
  case ENOMEM:
    return "fork error\n";
  default:
    return "end of execvp - shouldn't come here\n";
  }
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
  limitChild(pid);
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

ChildProcess startReadChild(const std::vector<std::string>& argv, ChildProcess::Options options) {
  options.captureStdout = true;
  ChildProcess child = ChildProcess::spawn(argv, options);
  if (child.valid()) return child;
  KX_RUNNER_LOG("%s", whatCouldNotBeHad(errno));
  return child;
}

ChildEnd followPrinter(JobRun& run, ChildProcess& child,
                       const std::function<void(std::string_view)>& onText) {
  const ShownChild shown(run, child.pid());
  const seconds limit = stallLimit();
  auto lastWord = steady_clock::now();
  std::array<char, 4096> buffer;
  int output = child.stdoutFd();
  fcntl(output, F_SETFL, O_NONBLOCK);
  while (true) {
    waitForOutput(run, child, output);
    if (run.mustEnd()) return endStopped(child);
    // Asked before the last of its words is read.
    const bool hasEnded = child.poll().has_value();
    const ssize_t count = output < 0 ? 0 : read(output, buffer.data(), buffer.size());
    if (count > 0) {
      lastWord = steady_clock::now();
      onText({buffer.data(), static_cast<size_t>(count)});
      continue;
    }
    if (hasEnded) return endOf(child.wait());
    if (count == 0) output = -1;  // closed by a program that goes on
    if (steady_clock::now() - lastWord >= limit) return endStalled(child);
  }
}

struct ChildGroup::Member {
  int key;
  ChildProcess child;
  ProgressWatch progress;
};

ChildGroup::ChildGroup(JobRun& run) : m_run(run) {}

ChildGroup::~ChildGroup() {
  if (m_members.empty()) return;
  endChildren(children());
  m_run.showPid(-1);
}

void ChildGroup::add(int key, pid_t pid, const WatchPoints& points) {
  m_members.push_back(
      std::make_unique<Member>(Member{key, ChildProcess::adopt(pid), ProgressWatch(points)}));
  limitChild(pid);
  showFirst();
}

std::optional<ChildGroup::Ended> ChildGroup::waitForOne(const std::function<void()>& onProgress) {
  while (!m_members.empty()) {
    const Wake wake = waitForSomething(m_run, children());
    if (wake == Wake::RunEnds) {
      stopAll();
      return std::nullopt;
    }
    const auto ended = std::ranges::find_if(m_members, [](const std::unique_ptr<Member>& member) {
      return member->child.poll().has_value();
    });
    if (ended != m_members.end()) return take(ended, endOf((*ended)->child.wait()));
    for (const auto& member : m_members) member->progress.look();
    if (onProgress) onProgress();
    const auto stalled = std::ranges::find_if(m_members, [](const std::unique_ptr<Member>& member) {
      return member->progress.isStalled(stallLimit());
    });
    if (stalled != m_members.end()) return take(stalled, endStalled((*stalled)->child));
  }
  return std::nullopt;
}

ChildGroup::Members::const_iterator ChildGroup::find(int key) const {
  return std::ranges::find_if(
      m_members, [key](const std::unique_ptr<Member>& member) { return member->key == key; });
}

void ChildGroup::end(int key) {
  const auto found = find(key);
  if (found == m_members.end()) return;
  endChildren({&(*found)->child});
  m_members.erase(found);
  showFirst();
}

int ChildGroup::percent(int key) const {
  const auto found = find(key);
  return found == m_members.end() ? 0 : (*found)->progress.percent().value_or(0);
}

std::vector<ChildProcess*> ChildGroup::children() const {
  std::vector<ChildProcess*> children;
  for (const auto& member : m_members) children.push_back(&member->child);
  return children;
}

ChildGroup::Ended ChildGroup::take(Members::iterator member, const ChildEnd& end) {
  const Ended ended{(*member)->key, end};
  m_members.erase(member);
  showFirst();
  return ended;
}

void ChildGroup::stopAll() {
  if (m_members.empty()) return;
  stopChildren(children());
  m_members.clear();
  showFirst();
}

void ChildGroup::showFirst() {
  m_run.showPid(m_members.empty() ? -1 : m_members.front()->child.pid());
}

ChildEnd followChild(JobRun& run, pid_t pid, const WatchPoints& points, seconds limit) {
  ChildProcess child = ChildProcess::adopt(pid);
  const ShownChild shown(run, pid);
  ProgressWatch progress(points);
  while (true) {
    const Wake wake = waitForSomething(run, {&child});
    if (wake == Wake::ChildEnded) return endOf(child.wait());
    if (wake == Wake::RunEnds) return endStopped(child);
    progress.look();
    if (const auto percent = progress.percent()) run.showProgress(*percent);
    if (progress.isStalled(limit)) return endStalled(child);
  }
}

}  // namespace runner
