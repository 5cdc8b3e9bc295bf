#include "daemon/StopSignal.h"

#include <semaphore.h>

#include <cerrno>
#include <csignal>

namespace xcoded {
namespace {

sem_t gAsked;  // for the life of the process: a handler may run at any time

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
  return sem_init(&gAsked, 0, 0) == 0 && handle(SIGTERM, onStop) && handle(SIGINT, onStop) &&
         handle(SIGPIPE, onPipe);
}

void StopSignal::wait() {
  while (sem_wait(&gAsked) != 0 && errno == EINTR) {
  }
}

void StopSignal::raise() {
  // A semaphore, because posting one is allowed in a signal handler.
  sem_post(&gAsked);
}

}  // namespace xcoded
