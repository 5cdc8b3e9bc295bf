#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "SocketMgr.h"
#include "daemon/AnswerJson.h"
#include "daemon/ClientConnections.h"
#include "frame/UniqueFd.h"
#include "tests/daemon/Records.h"
#include "tests/support/TestSupport.h"

using namespace std::chrono_literals;
using xcoded::ClientConnections;

namespace {

// A server that answers every request with its own command code.
class Server {
 public:
  explicit Server(ClientConnections::Limits limits) : m_connections(handlers(), limits) {
    EXPECT_EQ(m_socket.init(path(), true), 0);
    EXPECT_EQ(m_socket.Listen(64), 0);
    m_connections.start();
  }
  ~Server() {
    EXPECT_TRUE(m_connections.stop([this] { UniqueFd wake(connect()); }, 10s));
  }

  std::string path() const { return m_dir / "s"; }
  int served() const { return m_served; }

  int connect() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }

  // One exchange; the command code of the answer, or -1 when there was none.
  int ask(int32_t code) const {
    const UniqueFd fd(connect());
    const auto request = kxtest::makeRequest(code);
    send(fd.get(), request.get(), sizeof *request, MSG_NOSIGNAL);
    if (recv(fd.get(), request.get(), sizeof *request, MSG_WAITALL) !=
        static_cast<ssize_t>(sizeof *request))
      return -1;
    return kxtest::numberOf(*request, 0);
  }

 private:
  ClientConnections::Handlers handlers() {
    return {[this] { return m_socket.Accept(); },
            [this](int fd, KxSockData_s& request) {
              return m_socket.ReadStruct(&request, sizeof request, fd) == sizeof request;
            },
            [this](int fd, KxSockData_s& request) {
              ++m_served;
              xcoded::sendAnswer(fd, kxtest::numberOf(request, 0), {});
            },
            [this](int fd) { m_socket.Close(fd); }};
  }

  kxtest::TempDir m_dir;
  SocketMgr m_socket;
  std::atomic<int> m_served{0};
  ClientConnections m_connections;
};

// Waits until the other side closes; how long that took.
std::chrono::milliseconds untilClosed(int fd) {
  const auto start = std::chrono::steady_clock::now();
  char byte = 0;
  while (recv(fd, &byte, 1, 0) > 0) {
  }
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start);
}

}  // namespace

TEST(ClientConnections, AnswersAndClosesAfterEachRequest) {
  Server server({4, 10000ms});
  for (int i = 1; i <= 50; ++i) ASSERT_EQ(server.ask(i), i);
  EXPECT_EQ(server.served(), 50);
}

TEST(ClientConnections, ManyClientsAtOnceAreAllServed) {
  Server server({3, 10000ms});
  std::vector<std::thread> clients;
  clients.reserve(24);
  std::atomic<int> good{0};
  for (int i = 1; i <= 24; ++i) {
    clients.emplace_back([&, i] {
      for (int n = 0; n < 5; ++n)
        if (server.ask(i) == i) ++good;
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(good, 120);
}

TEST(ClientConnections, AClientThatSendsNothingIsCutOffInTime) {
  Server server({4, 300ms});
  const UniqueFd silent(server.connect());
  const auto time = untilClosed(silent.get());
  EXPECT_GE(time, 200ms);
  EXPECT_LT(time, 5s);
  EXPECT_EQ(server.served(), 0);
}

TEST(ClientConnections, ATrickleOfBytesDoesNotExtendTheTime) {
  Server server({4, 400ms});
  const UniqueFd slow(server.connect());
  const auto start = std::chrono::steady_clock::now();
  // Each byte restarts a receive time-out, but not the deadline of the record.
  pollfd end{slow.get(), POLLRDHUP, 0};
  while (send(slow.get(), "x", 1, MSG_NOSIGNAL) == 1 && poll(&end, 1, 20) == 0)
    if (std::chrono::steady_clock::now() - start > 10s) break;
  EXPECT_LT(std::chrono::steady_clock::now() - start, 8s);
  EXPECT_EQ(server.served(), 0);
}

TEST(ClientConnections, SlowClientsDoNotKeepOthersOut) {
  Server server({2, 60000ms});
  std::vector<UniqueFd> slow;
  slow.reserve(6);
  for (int i = 0; i < 6; ++i) slow.emplace_back(server.connect());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(server.ask(6), 6);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST(ClientConnections, AShortRecordIsNotServed) {
  Server server({2, 10000ms});
  const UniqueFd fd(server.connect());
  const std::string half(40000, 'x');
  ASSERT_EQ(send(fd.get(), half.data(), half.size(), MSG_NOSIGNAL), 40000);
  shutdown(fd.get(), SHUT_WR);
  untilClosed(fd.get());
  EXPECT_EQ(server.served(), 0);
}

TEST(ClientConnections, StoppingCutsOffThoseThatStillSend) {
  auto server = std::make_unique<Server>(ClientConnections::Limits{4, 60000ms});
  const UniqueFd silent(server->connect());
  ASSERT_EQ(server->ask(6), 6);
  const auto start = std::chrono::steady_clock::now();
  server.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}
