#include "SocketMgr.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "frame/Log.h"

static constexpr const char* kLogSource = "SocketMgr";

namespace {

constexpr int kNoDescriptor = 1;  // what Read and Write answer for a negative one on a server

// Repeats a call that a signal interrupted.
template <class Call>
auto retried(Call call) {
  decltype(call()) result;
  do result = call();
  while (result < 0 && errno == EINTR);
  return result;
}

// Keeps a write to a peer that has left from raising SIGPIPE in this process: blocks the
// signal in this thread and takes back the one that the write caused. The descriptor may be a
// pipe, so a flag of send() would not do.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigset_t pending;
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&m_pipe);
    sigaddset(&m_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
  }
  ~SigpipeGuard() {
    const int savedErrno = errno;
    const timespec atOnce{};
    if (!m_wasPending && savedErrno == EPIPE)
      retried([&] { return sigtimedwait(&m_pipe, nullptr, &atOnce); });
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    errno = savedErrno;
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t m_pipe;
  sigset_t m_before;
  bool m_wasPending;
};

int readOnce(int fd, char* buf, size_t len) {
  const ssize_t count = retried([&] { return read(fd, buf, len); });
  if (count < 0) KX_LOG_ERRNO_AS("Read", "read fail");
  return static_cast<int>(count);
}

}  // namespace

SocketMgr::SocketMgr() : m_address{}, m_sockfd(-1), m_isServer(false) {}

SocketMgr::~SocketMgr() {
  if (m_sockfd > 0 && close(m_sockfd) != 0) KX_LOG_ERRNO("close m_sockfd %d fail", m_sockfd);
}

int SocketMgr::init(std::string path, bool isServer) {
  if (path.empty()) {
    KX_LOG("sockFilePath is empty\n");
    return 1;
  }
  m_sockFilePath = path;
  m_sockfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_sockfd < 0) {
    KX_LOG_ERRNO("create socket fail");
    return 1;
  }
  m_address = {};
  m_address.sun_family = AF_UNIX;
  m_sockFilePath.copy(m_address.sun_path, sizeof m_address.sun_path - 1);
  m_isServer = isServer;
  if (!m_isServer) return 0;
  if (bindToFile() == 0) return 0;
  close(m_sockfd);
  m_sockfd = -1;
  return 1;
}

// Every call uses the path as it stands in the address: with a longer one the file that was
// bound would not be the one that is removed.
int SocketMgr::bindToFile() {
  const char* path = m_address.sun_path;
  struct stat info {};
  if (stat(path, &info) == 0 && remove(path) != 0) {
    KX_LOG_ERRNO_AS("init", "remove() sockFilePath %s fail", path);
    return 1;
  }
  if (bind(m_sockfd, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address) != 0) {
    KX_LOG_ERRNO_AS("init", "server bind() fail");
    return 1;
  }
  if (chmod(path, 0777) != 0) KX_LOG_AS("init", "chmod %s fail\n", path);
  return 0;
}

int SocketMgr::Listen(int backlog) {
  if (backlog < 1) return 1;
  const int result = listen(m_sockfd, backlog);
  if (result != 0) KX_LOG_ERRNO("listen fail");
  return result;
}

int SocketMgr::Connect(long sec, long usec) {
  if (sec < 0 || usec < 0) return 1;
  const timeval limit{sec, usec};
  for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    if (setsockopt(m_sockfd, SOL_SOCKET, option, &limit, sizeof limit) == 0) continue;
    KX_LOG_ERRNO("setsockopt() timeout fail");
    return 1;
  }
  if (connect(m_sockfd, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address) != 0) {
    KX_LOG_ERRNO("connect() fail");
    return 1;
  }
  return 0;
}

int SocketMgr::Accept() {
  const int fd = retried([&] { return accept4(m_sockfd, nullptr, nullptr, SOCK_CLOEXEC); });
  if (fd >= 0) return fd;
  KX_LOG_ERRNO("accept() fail");
  return -1;
}

int SocketMgr::chooseFd(int fd) const {
  return m_isServer ? fd : m_sockfd;
}

int SocketMgr::Read(void* buf, unsigned int len, int fd) {
  memset(buf, 0, len);
  if (m_isServer && fd < 0) {
    KX_LOG("socket < 0 error\n");
    return kNoDescriptor;
  }
  return readOnce(chooseFd(fd), static_cast<char*>(buf), len);
}

int SocketMgr::ReadStruct(void* buf, unsigned int len, int fd) {
  memset(buf, 0, len);
  if (len == 0) return -1;
  if (m_isServer && fd < 0) {
    KX_LOG("socket < 0 error\n");
    KX_LOG("read struct error\n");
    return -1;
  }
  auto* bytes = static_cast<char*>(buf);
  for (unsigned int filled = 0; filled < len;) {
    const int count = readOnce(chooseFd(fd), bytes + filled, len - filled);
    if (count < 0) KX_LOG("read struct error\n");
    if (count <= 0) return count;
    filled += static_cast<unsigned int>(count);
  }
  return static_cast<int>(len);
}

int SocketMgr::Write(void* buf, unsigned int len, int fd) {
  if (m_isServer && fd < 0) {
    KX_LOG("socket < 0 error\n");
    return kNoDescriptor;
  }
  const SigpipeGuard guard;
  const ssize_t count = retried([&] { return write(chooseFd(fd), buf, len); });
  if (count < 0) KX_LOG_ERRNO("write fail");
  return static_cast<int>(count);
}

int SocketMgr::Close(int fd) {
  const int result = close(fd);
  if (result != 0) KX_LOG_ERRNO("close fail");
  return result;
}

int SocketMgr::Close() {
  return Close(m_sockfd);
}
