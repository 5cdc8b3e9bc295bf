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
class ChildProcess {
 public:
  struct Options {
    std::string stderrFile;      // truncated and written with standard error; empty: inherited
    bool captureStdout = false;  // standard output readable from stdoutFd()
    std::vector<std::string> extraEnv;  // "NAME=value", added to the environment
    std::string workingFolder;          // empty: inherited
  };

  ChildProcess() = default;
  // Takes over a child that was started elsewhere (miscLaunchCmdNoWait).
  static ChildProcess adopt(pid_t pid);
  // Starts a program: own process group, standard input from /dev/null, default signals,
  // parent-death signal SIGTERM, every other descriptor closed. pid() is -1 on failure.
  static ChildProcess spawn(const std::vector<std::string>& argv, const Options& options);
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  // Stops the child when it still runs, and reaps it.
  ~ChildProcess();

  pid_t pid() const { return m_pid; }
  bool valid() const { return m_pid > 0; }
  int stdoutFd() const { return m_stdout.get(); }

  // Wait status once the child has ended; it is reaped then and the result is kept.
  std::optional<int> poll();
  std::optional<int> waitFor(std::chrono::milliseconds limit);
  int wait();
  // SIGTERM, then SIGKILL after the grace time; returns the wait status.
  int terminate(std::chrono::milliseconds grace);
  // Sends a signal to a child that has not been reaped. False when there is none.
  bool signal(int number);

 private:
  pid_t m_pid = -1;
  UniqueFd m_pidFd;
  UniqueFd m_stdout;
  std::optional<int> m_status;
};
