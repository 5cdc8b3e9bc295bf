#include "daemon/ClientConnections.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <system_error>

#include "frame/Log.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";
constexpr std::chrono::seconds kIdleTime{5};         // that a thread waits for another client
constexpr std::chrono::milliseconds kPatience{200};  // with a client while others queue
constexpr int kAcceptPause = 50;                     // milliseconds after a failed accept

void limitSending(int fd, std::chrono::milliseconds limit) {
  timeval time{};
  time.tv_sec = limit.count() / 1000;
  time.tv_usec = limit.count() % 1000 * 1000;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time) != 0)
    KX_LOG_ERRNO("setsockopt() SO_SNDTIMEO fail");
}

}  // namespace

ClientConnections::ClientConnections(Handlers handlers, Limits limits)
    : m_handlers(std::move(handlers)), m_limits(limits) {}

ClientConnections::~ClientConnections() = default;

void ClientConnections::start() {
  m_watchman = std::thread([this] { watchDeadlines(); });
  m_acceptor = std::thread([this] { acceptLoop(); });
}

bool ClientConnections::stop(const std::function<void()>& wakeUp, std::chrono::milliseconds limit) {
  const Clock::time_point until = Clock::now() + limit;
  {
    MutexLock lock(m_mutex);
    m_isStopping = true;
    m_workerWakeUp.notify_all();
    m_workerEnded.notify_all();
    m_watchmanWakeUp.notify_all();
    for (Client& client : m_clients)
      if (client.isReading) cutOffLocked(client);
  }
  wakeUp();
  if (m_acceptor.joinable()) m_acceptor.join();
  if (m_watchman.joinable()) m_watchman.join();
  MutexLock lock(m_mutex);
  while (m_workers > 0)
    if (m_workerEnded.wait_until(m_mutex, until) == std::cv_status::timeout) return m_workers == 0;
  return true;
}

// The descriptor stays open until its thread closes it, so its number cannot be another's.
void ClientConnections::cutOffLocked(Client& client) {
  shutdown(client.fd, SHUT_RDWR);
  client.isReading = false;
}

void ClientConnections::acceptLoop() {
  for (;;) {
    const int fd = m_handlers.accept();
    {
      MutexLock lock(m_mutex);
      if (m_isStopping) {
        if (fd >= 0) m_handlers.close(fd);
        return;
      }
    }
    if (fd >= 0) {
      handOver(fd);
    } else {
      // Out of descriptors or memory; a moment later some clients have left.
      poll(nullptr, 0, kAcceptPause);
    }
  }
}

// Waits until a thread is free.
void ClientConnections::makeRoomLocked() {
  while (m_idle == 0 && m_workers >= m_limits.clients && !m_isStopping) {
    const Clock::time_point now = Clock::now();
    Clock::time_point wakeUp = now + kPatience;
    for (Client& client : m_clients) {
      if (!client.isReading) continue;
      wakeUp = client.since + kPatience;
      if (wakeUp > now) break;
      KX_LOG_LEVEL(3, "all %d connections are taken, we close the slowest\n", m_limits.clients);
      cutOffLocked(client);
      wakeUp = now + kPatience;
      break;
    }
    m_workerEnded.wait_until(m_mutex, wakeUp);
  }
}

void ClientConnections::handOver(int fd) {
  {
    MutexLock lock(m_mutex);
    makeRoomLocked();
    if (m_idle > 0) {
      --m_idle;
      m_queue.push_back(fd);
      m_workerWakeUp.notify_one();
      return;
    }
    ++m_workers;
  }
  try {
    std::thread([this, fd] { workerLoop(fd); }).detach();
  } catch (const std::system_error& error) {
    KX_LOG_LEVEL(2, "no thread for a client: %s\n", error.what());
    m_handlers.close(fd);
    MutexLock lock(m_mutex);
    --m_workers;
  }
}

void ClientConnections::workerLoop(int firstFd) {
  for (int fd = firstFd; fd >= 0; fd = nextClient()) serve(fd);
  MutexLock lock(m_mutex);
  --m_workers;
  m_workerEnded.notify_all();
}

int ClientConnections::nextClient() {
  const Clock::time_point until = Clock::now() + kIdleTime;
  MutexLock lock(m_mutex);
  ++m_idle;
  m_workerEnded.notify_all();
  while (m_queue.empty() && !m_isStopping) {
    if (m_workerWakeUp.wait_until(m_mutex, until) != std::cv_status::timeout) continue;
    break;
  }
  if (m_queue.empty()) {
    --m_idle;
    return -1;
  }
  const int fd = m_queue.front();
  m_queue.pop_front();
  return fd;
}

void ClientConnections::serve(int fd) {
  limitSending(fd, m_limits.recordTime);
  ClientEntry client;
  {
    MutexLock lock(m_mutex);
    client = m_clients.insert(m_clients.end(), {fd, Clock::now()});
    if (m_isStopping) cutOffLocked(*client);
  }
  auto request = std::make_unique<KxSockData_s>();
  const bool isWhole = m_handlers.read(fd, *request);
  {
    MutexLock lock(m_mutex);
    client->isReading = false;
  }
  if (isWhole) m_handlers.dispatch(fd, *request);
  MutexLock lock(m_mutex);
  m_clients.erase(client);
  m_handlers.close(fd);
}

// All clients have the same time, so the list is in the order of their ends, and nobody who
// comes while the watchman sleeps is due before he wakes.
void ClientConnections::watchDeadlines() {
  MutexLock lock(m_mutex);
  while (!m_isStopping) {
    const Clock::time_point now = Clock::now();
    Clock::time_point wakeUp = now + m_limits.recordTime;
    for (Client& client : m_clients) {
      if (!client.isReading) continue;
      if (client.since + m_limits.recordTime > now) {
        wakeUp = client.since + m_limits.recordTime;
        break;
      }
      KX_LOG_LEVEL(4, "a client did not send its request in time\n");
      cutOffLocked(client);
    }
    m_watchmanWakeUp.wait_until(m_mutex, wakeUp);
  }
}

}  // namespace xcoded
