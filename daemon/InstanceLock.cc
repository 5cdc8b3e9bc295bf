#include "daemon/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace xcoded {
namespace {

std::string holderOf(int fd) {
  char text[32] = {};
  const ssize_t count = pread(fd, text, sizeof text - 1, 0);
  if (count <= 0) return "another process";
  text[strcspn(text, "\n")] = '\0';
  return std::string("process ") + text;
}

}  // namespace

bool InstanceLock::take(const std::string& path) {
  m_fd.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!m_fd) {
    m_error = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  if (flock(m_fd.get(), LOCK_EX | LOCK_NB) == 0) return true;
  m_error = errno == EWOULDBLOCK ? "another xcoded already works on this root (" +
                                       holderOf(m_fd.get()) + " holds " + path + ")"
                                 : "cannot lock " + path + ": " + strerror(errno);
  m_fd.reset();
  return false;
}

void InstanceLock::writePid() const {
  const std::string text = std::to_string(getpid()) + "\n";
  // A lock file without a pid still locks, so a full disk is no reason to stop.
  if (ftruncate(m_fd.get(), 0) != 0) return;
  if (pwrite(m_fd.get(), text.data(), text.size(), 0) < 0) return;
}

}  // namespace xcoded
