#include "daemon/SourceSettle.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "frame/UniqueFd.h"

namespace xcoded {
namespace {

using Clock = SourceSettle::Clock;

// How long ago the clock of the file system says that a file was changed. Negative when its
// clock is ahead of ours.
Clock::duration ageOf(const struct stat& info) {
  const auto changed =
      std::chrono::seconds(info.st_ctim.tv_sec) + std::chrono::nanoseconds(info.st_ctim.tv_nsec);
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<Clock::duration>(now - changed);
}

bool isSame(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

bool hasWriter(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return false;
  // A writer that comes while the lease is held breaks it, and the signal that tells must be
  // one that is ignored by default.
  if (fcntl(fd.get(), F_SETSIG, SIGURG) != 0) return false;
  if (fcntl(fd.get(), F_SETLEASE, F_RDLCK) == 0) {
    fcntl(fd.get(), F_SETLEASE, F_UNLCK);
    return false;
  }
  return errno == EAGAIN;
}

void SourceSettle::beginRound() {
  std::erase_if(m_sights, [this](const auto& sight) { return sight.second.round != m_round; });
  ++m_round;
  m_nextLook.reset();
}

// How long a file has been seen, or can be known, to be as it is.
Clock::duration SourceSettle::restOf(const std::string& path, const struct stat& info) {
  const Clock::time_point now = Clock::now();
  Sight& sight =
      m_sights.try_emplace(path, Sight{info.st_size, info.st_mtim, now, m_round}).first->second;
  sight.round = m_round;
  if (sight.size != info.st_size || !isSame(sight.changed, info.st_mtim))
    sight = {info.st_size, info.st_mtim, now, m_round};
  return std::max(now - sight.since, ageOf(info));
}

void SourceSettle::lookAgainIn(Clock::duration time) {
  const Clock::time_point look = Clock::now() + time;
  m_nextLook = m_nextLook ? std::min(*m_nextLook, look) : look;
}

bool SourceSettle::isComplete(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return true;
  const Clock::duration rest = restOf(path, info);
  if (rest < m_settleTime) {
    lookAgainIn(m_settleTime - rest);
    return false;
  }
  if (!hasWriter(path)) return true;
  lookAgainIn(m_settleTime);
  return false;
}

}  // namespace xcoded
