#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

// Runs one program through MyExec::run, which has no time limit of its own, on a thread that
// may be given up: a program that never answers is killed and counts as failed, and the
// caller goes on. Several can be started before the first is waited for. The program also ends
// when the StopSignal of the thread that made the object is set.
//
// Each object is used from one thread.
class BoundedRun {
 public:
  // The limit counts from here.
  BoundedRun(std::vector<std::string> argv, std::chrono::milliseconds limit);
  ~BoundedRun();
  BoundedRun(BoundedRun&&) noexcept;
  BoundedRun& operator=(BoundedRun&&) = delete;

  // The result of MyExec::run, non-zero also when the time was up. Call once.
  int wait(std::string& out);

  // Threads given up because not even killing their program brought them back.
  static int stuckCount();

 private:
  struct State;

  std::shared_ptr<State> m_state;  // none when the program could not be run at all
  std::chrono::steady_clock::time_point m_deadline;
};
