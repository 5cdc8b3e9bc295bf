#include "frame/StopSignal.h"

#include <poll.h>

#include <utility>

namespace {
thread_local int tStopFd = -1;
}  // namespace

StopSignal::StopSignal(int fd) : m_outer(std::exchange(tStopFd, fd)) {}

StopSignal::~StopSignal() {
  tStopFd = m_outer;
}

int StopSignal::fd() {
  return tStopFd;
}

bool StopSignal::isSet() {
  if (tStopFd < 0) return false;
  pollfd asked{tStopFd, POLLIN, 0};
  return poll(&asked, 1, 0) > 0 && (asked.revents & POLLIN) != 0;
}
