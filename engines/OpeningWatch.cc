#include "engines/OpeningWatch.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "frame/Log.h"
#include "frame/StopSignal.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace engines {
namespace {

// A probe takes 30 seconds at most.
constexpr std::chrono::seconds kLimit{60};

}  // namespace

OpeningWatch::OpeningWatch(std::function<void()> giveUp)
    : m_giveUp(std::move(giveUp)), m_done(eventfd(0, EFD_CLOEXEC)) {
  if (!m_done) return;
  try {
    m_thread = std::thread([this, stopFd = StopSignal::fd()] { run(stopFd); });
  } catch (const std::system_error& error) {
    KX_LOG("can not create a thread: %s\n", error.what());
  }
}

OpeningWatch::~OpeningWatch() {
  if (!m_thread.joinable()) return;
  eventfd_write(m_done.get(), 1);
  m_thread.join();
}

void OpeningWatch::run(int stopFd) {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  std::array<pollfd, 2> events = {pollfd{m_done.get(), POLLIN, 0}, pollfd{stopFd, POLLIN, 0}};
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int ready = poll(events.data(), events.size(), static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR && left.count() > 0) continue;
    if (ready <= 0 || events[0].revents == 0) m_giveUp();
    return;
  }
}

}  // namespace engines
