#pragma once

#include <functional>
#include <thread>

#include "frame/UniqueFd.h"

namespace engines {

// While it lives, calls a function from a thread of its own as soon as the work of the thread
// that made it has to end (StopSignal), or takes too long. For calls that nothing else gets
// out of: reading from a mounted image whose server does not answer.
class OpeningWatch {
 public:
  explicit OpeningWatch(std::function<void()> giveUp);
  ~OpeningWatch();
  OpeningWatch(const OpeningWatch&) = delete;
  OpeningWatch& operator=(const OpeningWatch&) = delete;

 private:
  void run(int stopFd);

  std::function<void()> m_giveUp;
  UniqueFd m_done;
  std::thread m_thread;
};

}  // namespace engines
