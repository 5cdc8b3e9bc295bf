#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "frame/UniqueFd.h"

// Owns one child process of this process: waits for it, stops it, and never leaves it
// behind. Waiting is done on a pidfd, never on a clock, and always for this one pid.
//
// Move-only; used from one thread. The parent-death signal of a child fires when the thread
// that forked it ends, so the thread that launches a child also waits for it.
//
// A wait status is the kernel's (WIFEXITED and so on). Should somebody else have reaped the
// child, its status is kLostStatus.
class ChildProcess {
 public:
  struct Options {
    std::string stderrFile;      // truncated and written with standard error; empty: inherited
    bool captureStdout = false;  // standard output readable from stdoutFd()
    std::vector<std::string> extraEnv;  // "NAME=value", added to the environment
    std::string workingFolder;          // empty: inherited
  };

  // The status of a child that was reaped elsewhere: exit code 255.
  static constexpr int kLostStatus = 255 << 8;

  ChildProcess() = default;
  // Takes over a child that was started elsewhere (miscLaunchCmdNoWait). A pid below 1 gives
  // an object without a child. A child that leads a process group is signalled with all of it.
  static ChildProcess adopt(pid_t pid);
  // Starts a program: own process group, standard input from /dev/null, default signals,
  // parent-death signal SIGTERM, every other descriptor closed. pid() is -1 on failure, also
  // when the program cannot be executed; the reason is in the log and in errno.
  static ChildProcess spawn(const std::vector<std::string>& argv, const Options& options);
  ChildProcess(ChildProcess&& other) noexcept;
  // Stops and reaps the child it held before.
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  // Stops the child when it still runs, and reaps it.
  ~ChildProcess();

  // The child's pid, also after it was reaped.
  pid_t pid() const { return m_pid; }
  bool valid() const { return m_pid > 0; }
  int stdoutFd() const { return m_stdout.get(); }
  // Readable (POLLIN) once the child has ended; -1 when there is none.
  int pidFd() const { return m_pidFd.get(); }

  // Wait status once the child has ended; it is reaped then and the result is kept.
  std::optional<int> poll();
  // Waits at most this long; negative: without limit. Nothing when the child still runs.
  std::optional<int> waitFor(std::chrono::milliseconds limit);
  int wait();
  // SIGTERM, then SIGKILL after the grace time; returns the wait status. A child that leads a
  // process group takes all of it with it.
  int terminate(std::chrono::milliseconds grace);
  // The second half of terminate(), for a caller that has sent a signal itself.
  int killAfter(std::chrono::milliseconds grace);
  // Sends a signal to a child that has not been reaped, and to the process group that it leads.
  // False when there is none.
  bool signal(int number);

 private:
  void openPidFd();
  bool waitForEnd(std::chrono::milliseconds limit);
  void release() noexcept;
  void takeOver(ChildProcess& other) noexcept;

  pid_t m_pid = -1;
  bool m_ownGroup = false;
  UniqueFd m_pidFd;
  UniqueFd m_stdout;
  std::optional<int> m_status;
};
