#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <thread>

#include "KxAbstractTranscodeSvr.h"
#include "daemon/Mutex.h"

namespace xcoded {

// Accepts clients and serves each on a thread of its own: one request, one answer, close.
//
// No client can hold up the others: the number of threads is bounded, a record must arrive
// within a time however slowly its bytes come, and when every thread is taken the client that
// has kept its thread waiting longest, for a moment at least, gives way. Threads stay for a moment
// to serve the next client, so a burst of requests costs no thread each.
class ClientConnections {
 public:
  struct Handlers {
    std::function<int()> accept;                       // a descriptor, or -1
    std::function<bool(int, KxSockData_s&)> read;      // whole record
    std::function<void(int, KxSockData_s&)> dispatch;  // answers
    std::function<void(int)> close;
  };
  struct Limits {
    int clients = 32;
    std::chrono::milliseconds recordTime{10000};
  };

  ClientConnections(Handlers handlers, Limits limits);
  ~ClientConnections();
  ClientConnections(const ClientConnections&) = delete;
  ClientConnections& operator=(const ClientConnections&) = delete;

  void start();
  // Ends the threads. @p wakeUp makes a blocking accept return, for instance by connecting.
  // Clients that still send are cut off; those being answered get their answer. False when
  // one of them still has its thread at the limit.
  bool stop(const std::function<void()>& wakeUp, std::chrono::milliseconds limit);

 private:
  using Clock = std::chrono::steady_clock;
  struct Client {
    int fd;
    Clock::time_point since;
    bool isReading = true;
  };
  using ClientEntry = std::list<Client>::iterator;

  void acceptLoop();
  void watchDeadlines();
  void handOver(int fd);
  void workerLoop(int firstFd);
  int nextClient();
  void serve(int fd);
  void makeRoomLocked() KX_REQUIRES(m_mutex);
  void cutOffLocked(Client& client) KX_REQUIRES(m_mutex);

  const Handlers m_handlers;
  const Limits m_limits;
  std::thread m_acceptor;
  std::thread m_watchman;

  Mutex m_mutex;
  Condition m_workerWakeUp;
  Condition m_workerEnded;
  Condition m_watchmanWakeUp;
  std::list<Client> m_clients KX_GUARDED_BY(m_mutex);  // oldest first
  std::deque<int> m_queue KX_GUARDED_BY(m_mutex);      // for idle workers
  int m_workers KX_GUARDED_BY(m_mutex) = 0;
  int m_idle KX_GUARDED_BY(m_mutex) = 0;
  bool m_isStopping KX_GUARDED_BY(m_mutex) = false;
};

}  // namespace xcoded
