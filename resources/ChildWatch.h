#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frame/ChildProcess.h"
#include "resources/JobRun.h"

namespace runner {

// How a child of a job ended.
struct ChildEnd {
  enum class Kind { Success, Failure, Stalled, Stopped };
  Kind kind = Kind::Failure;
  int result = 0;         // exit code or signal number of a failure
  bool bySignal = false;  // a failure that somebody else's signal was the cause of

  bool ok() const { return kind == Kind::Success; }
  // For people, as "ended with 1"; empty for a success.
  std::string text() const;
};

// What is watched while a child runs.
struct WatchPoints {
  std::function<int()> percent;    // may be empty; asked once a second
  std::vector<std::string> files;  // log and output; growing or changing is progress
};

// Time without progress after which a child is stopped.
std::chrono::seconds stallLimit();

// Follows a child that miscLaunchCmdNoWait started until it ends, on its pidfd and the unit's
// notification. The unit shows its pid and its progress. A stop or a suspension of the unit,
// and a time without progress, end the child with SIGTERM and, when that does not help,
// SIGKILL.
ChildEnd followChild(JobRun& run, pid_t pid, const WatchPoints& points,
                     std::chrono::seconds limit = stallLimit());

// Follows several children at a time, each as followChild() does. The unit shows the pid of the
// one that was added first; what it shows of the progress is left to the caller. Children that
// still run when the group goes are ended.
class ChildGroup {
 public:
  explicit ChildGroup(JobRun& run);
  ~ChildGroup();
  ChildGroup(const ChildGroup&) = delete;
  ChildGroup& operator=(const ChildGroup&) = delete;

  struct Ended {
    int key;
    ChildEnd end;
  };

  // Takes over a child that miscLaunchCmdNoWait started. @param key names it, chosen by the caller
  void add(int key, pid_t pid, const WatchPoints& points);
  size_t size() const { return m_members.size(); }
  // Waits until a child has ended, or was ended because it stalled. Nothing when there is none
  // or the run has to end: they are all ended then.
  // @param onProgress called once a second, may be empty
  std::optional<Ended> waitForOne(const std::function<void()>& onProgress);
  // Ends a child that nobody waits for any more; one that is gone is no mistake.
  void end(int key);
  // How far a child is, as last asked; 0 when it is gone or does not tell.
  int percent(int key) const;

 private:
  struct Member;
  using Members = std::vector<std::unique_ptr<Member>>;

  std::vector<ChildProcess*> children() const;
  Members::const_iterator find(int key) const;
  Ended take(Members::iterator member, const ChildEnd& end);
  void stopAll();
  void showFirst();

  JobRun& m_run;
  Members m_members;
};

// Shows a child as the unit's while it lives, and puts it under the limits where it does not
// inherit them.
class ShownChild {
 public:
  ShownChild(JobRun& run, pid_t pid);
  ~ShownChild();
  ShownChild(const ShownChild&) = delete;
  ShownChild& operator=(const ShownChild&) = delete;

 private:
  JobRun& m_run;
};

// Starts a program whose output is read. Logs what could not be had when the result is not valid.
ChildProcess startReadChild(const std::vector<std::string>& argv, ChildProcess::Options options);

// Follows a child of startReadChild() until it ends, as followChild() does; what it prints is its
// progress. @param onText given all of it, in pieces
ChildEnd followPrinter(JobRun& run, ChildProcess& child,
                       const std::function<void(std::string_view)>& onText);

}  // namespace runner
