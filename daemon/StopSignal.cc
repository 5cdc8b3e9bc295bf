#include "daemon/StopSignal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

namespace xcoded {
namespace {

int gEventFd = -1;  // for the life of the process: a handler may run at any time

void onStop(int) {
  const int savedErrno = errno;
  StopSignal::raise();
  errno = savedErrno;
}

void onPipe(int) {}

bool handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  return sigaction(number, &action, nullptr) == 0;
}

}  // namespace

bool StopSignal::install() {
  gEventFd = eventfd(0, EFD_CLOEXEC);
  return gEventFd >= 0 && handle(SIGTERM, onStop) && handle(SIGINT, onStop) &&
         handle(SIGPIPE, onPipe);
}

void StopSignal::wait() {
  uint64_t count = 0;
  while (read(gEventFd, &count, sizeof count) < 0 && errno == EINTR) {
  }
}

void StopSignal::raise() {
  const uint64_t one = 1;
  // Fails only when the counter is full, and then the waiter wakes up anyway.
  if (write(gEventFd, &one, sizeof one) < 0) return;
}

}  // namespace xcoded
