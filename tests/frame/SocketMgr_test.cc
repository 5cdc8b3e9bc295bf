#include "SocketMgr.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "frame/UniqueFd.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::waitUntil;
using kxtest::writeFile;

constexpr unsigned kRecord = 81920;

std::string withErrno(const std::string& text, int error) {
  return text + ", errno=" + std::to_string(error) + ", strerror=" + strerror(error) + "\n";
}

// The descriptor that the next call to open one will get.
int nextDescriptor() {
  return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)).get();
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

bool isSocket(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

// A listening server and a client connected to it.
class Connection {
 public:
  Connection() {
    EXPECT_EQ(server.init(m_dir / "sock", true), 0);
    EXPECT_EQ(server.Listen(5), 0);
    EXPECT_EQ(client.init(m_dir / "sock", false), 0);
    EXPECT_EQ(client.Connect(20, 0), 0);
    accepted.reset(server.Accept());
    EXPECT_TRUE(static_cast<bool>(accepted));
  }
  int fd() const { return accepted.get(); }

  SocketMgr server;
  SocketMgr client;
  UniqueFd accepted;

 private:
  TempDir m_dir;
};

TEST(ServerSocket, ReplacesAFileThatStandsAtItsPathAndIsOpenToEveryUser) {
  TempDir dir;
  writeFile(dir / "sock", "an old file");
  SocketMgr server;
  ASSERT_EQ(server.init(dir / "sock", true), 0);
  EXPECT_TRUE(isSocket(dir / "sock"));
  EXPECT_EQ(fs::status(dir / "sock").permissions(), fs::perms(0777));
  SocketMgr second;
  EXPECT_EQ(second.init(dir / "sock", true), 0) << "an older socket is replaced too";
}

TEST(ServerSocket, LeavesItsFileBehind) {
  TempDir dir;
  { EXPECT_EQ(SocketMgr().init(dir / "sock", true), 0); }
  EXPECT_TRUE(isSocket(dir / "sock"));
}

TEST(ServerSocket, CutsALongPathToItsFirst107Bytes) {
  TempDir dir;
  std::string path = dir / "s";
  path.append(200 - path.size(), 'x');
  const std::string cut = path.substr(0, 107);
  for (int start = 0; start < 2; ++start) {
    SocketMgr server;
    ASSERT_EQ(server.init(path, true), 0) << "start " << start;
    EXPECT_TRUE(isSocket(cut));
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(fs::status(cut).permissions(), fs::perms(0777));
    ASSERT_EQ(server.Listen(1), 0);
    SocketMgr client;
    ASSERT_EQ(client.init(path, false), 0);
    EXPECT_EQ(client.Connect(20, 0), 0);
  }
}

TEST(ServerSocket, NeedsAPath) {
  RecordingLog log;
  EXPECT_EQ(SocketMgr().init("", true), 1);
  EXPECT_TRUE(log.has(5, "SocketMgr", "sockFilePath is empty\n"));
}

TEST(ServerSocket, GivesItsDescriptorBackWhenItCannotRemoveOrBind) {
  TempDir dir;
  fs::create_directories(dir / "sock/inside");
  RecordingLog log;
  const int next = nextDescriptor();
  SocketMgr server;
  EXPECT_EQ(server.init(dir / "sock", true), 1);
  EXPECT_TRUE(log.has(5, "SocketMgr",
                      withErrno("remove() sockFilePath " + dir / "sock" + " fail", ENOTEMPTY)));
  EXPECT_EQ(server.init(dir / "missing/sock", true), 1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("server bind() fail", ENOENT)));
  EXPECT_EQ(log.lines().back().func, "init");
  EXPECT_EQ(nextDescriptor(), next);
}

TEST(ServerSocket, ListensOnlyWithABacklogOfAtLeastOne) {
  TempDir dir;
  SocketMgr server;
  SocketMgr client;
  ASSERT_EQ(server.init(dir / "sock", true), 0);
  RecordingLog log;
  EXPECT_EQ(server.Listen(0), 1);
  EXPECT_EQ(server.Listen(-3), 1);
  EXPECT_TRUE(log.texts().empty());
  ASSERT_EQ(client.init(dir / "sock", false), 0);
  EXPECT_EQ(client.Connect(20, 0), 1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("connect() fail", ECONNREFUSED)));
  EXPECT_EQ(server.Listen(1), 0);
  EXPECT_EQ(client.Connect(20, 0), 0);
}

TEST(ServerSocket, ReportsCallsWithoutASocket) {
  RecordingLog log;
  SocketMgr none;
  EXPECT_EQ(none.Listen(1), -1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("listen fail", EBADF)));
  EXPECT_EQ(none.Accept(), -1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("accept() fail", EBADF)));
  EXPECT_EQ(none.Connect(1, 0), 1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("setsockopt() timeout fail", EBADF)));
  EXPECT_EQ(none.Close(), -1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("close fail", EBADF)));
}

TEST(ServerSocket, GoesOnAcceptingAfterASignal) {
  struct sigaction action {};
  static std::atomic<int> signals;
  action.sa_handler = [](int) { ++signals; };
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  TempDir dir;
  SocketMgr server;
  SocketMgr client;
  ASSERT_EQ(server.init(dir / "sock", true), 0);
  ASSERT_EQ(server.Listen(1), 0);
  UniqueFd accepted;
  std::thread acceptor([&] { accepted.reset(server.Accept()); });
  waitUntil([&] {
    pthread_kill(acceptor.native_handle(), SIGUSR1);
    return signals >= 3;
  });
  ASSERT_EQ(client.init(dir / "sock", false), 0);
  EXPECT_EQ(client.Connect(20, 0), 0);
  acceptor.join();
  EXPECT_TRUE(static_cast<bool>(accepted));
}

std::set<int> openSockets() {
  std::set<int> result;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    const std::string target = fs::read_symlink(entry.path(), closed).string();
    if (target.rfind("socket:", 0) == 0) result.insert(std::stoi(entry.path().filename()));
  }
  return result;
}

TEST(Sockets, AreNotInheritedByPrograms) {
  const std::set<int> before = openSockets();
  const Connection connection;
  int made = 0;
  for (const int fd : openSockets()) {
    if (before.count(fd) != 0) continue;
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << fd;
    ++made;
  }
  EXPECT_EQ(made, 3) << "listening, connecting and accepted";
}

TEST(Sockets, CarryWholeRecordsInBothDirections) {
  Connection connection;
  std::vector<char> sent(kRecord);
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7);
  std::vector<char> received(kRecord, 'x');
  std::thread answering([&] {
    std::vector<char> request(kRecord);
    EXPECT_EQ(connection.server.ReadStruct(request.data(), kRecord, connection.fd()),
              static_cast<int>(kRecord));
    EXPECT_EQ(connection.server.Write(request.data(), kRecord, connection.fd()),
              static_cast<int>(kRecord));
  });
  EXPECT_EQ(connection.client.Write(sent.data(), kRecord, -1), static_cast<int>(kRecord));
  EXPECT_EQ(connection.client.ReadStruct(received.data(), kRecord, -1), static_cast<int>(kRecord));
  answering.join();
  EXPECT_EQ(received, sent);
}

TEST(Sockets, ServeSeveralClientsFromSeveralThreadsAtOnce) {
  TempDir dir;
  SocketMgr server;
  ASSERT_EQ(server.init(dir / "sock", true), 0);
  ASSERT_EQ(server.Listen(8), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&server] {
      const UniqueFd client(server.Accept());
      std::vector<char> record(kRecord);
      EXPECT_EQ(server.ReadStruct(record.data(), kRecord, client.get()), static_cast<int>(kRecord));
      EXPECT_EQ(server.Write(record.data(), kRecord, client.get()), static_cast<int>(kRecord));
    });
    threads.emplace_back([&dir, t] {
      SocketMgr client;
      EXPECT_EQ(client.init(dir / "sock", false), 0);
      EXPECT_EQ(client.Connect(20, 0), 0);
      std::vector<char> record(kRecord, static_cast<char>('a' + t));
      EXPECT_EQ(client.Write(record.data(), kRecord, 0), static_cast<int>(kRecord));
      EXPECT_EQ(client.ReadStruct(record.data(), kRecord, 0), static_cast<int>(kRecord));
      EXPECT_EQ(record, std::vector<char>(kRecord, static_cast<char>('a' + t)));
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(ReadStruct, ReturnsZeroWhenThePeerLeavesEarlyAndKeepsWhatCame) {
  Connection connection;
  std::vector<char> part(40000, 'a');
  ASSERT_EQ(write(connection.fd(), part.data(), part.size()), 40000);
  connection.accepted.reset();
  std::vector<char> record(kRecord, 'x');
  EXPECT_EQ(connection.client.ReadStruct(record.data(), kRecord, -1), 0);
  EXPECT_EQ(std::count(record.begin(), record.begin() + 40000, 'a'), 40000);
  EXPECT_EQ(std::count(record.begin() + 40000, record.end(), '\0'), 41920);
}

TEST(ReadStruct, CollectsARecordThatComesInPieces) {
  Connection connection;
  std::thread writing([&] {
    for (int i = 0; i < 10; ++i)
      EXPECT_EQ(write(connection.fd(), std::string(10, static_cast<char>('0' + i)).data(), 10), 10);
  });
  std::string record(100, 'x');
  EXPECT_EQ(connection.client.ReadStruct(record.data(), 100, -1), 100);
  writing.join();
  EXPECT_EQ(record.substr(0, 11), "00000000001");
  EXPECT_EQ(record.back(), '9');
}

TEST(ReadStruct, OfNothingFails) {
  Connection connection;
  char byte = 'x';
  EXPECT_EQ(connection.client.ReadStruct(&byte, 0, -1), -1);
  EXPECT_EQ(byte, 'x');
}

TEST(ReadStruct, LogsAnErrorAndReturnsIt) {
  RecordingLog log;
  SocketMgr none;
  std::vector<char> record(16, 'x');
  EXPECT_EQ(none.ReadStruct(record.data(), 16, 3), -1);
  const std::vector<std::string> expected = {withErrno("read fail", EBADF), "read struct error\n"};
  EXPECT_EQ(log.texts(), expected);
  EXPECT_EQ(record, std::vector<char>(16, '\0'));
}

TEST(ServerDescriptor, MustNotBeNegative) {
  Connection connection;
  RecordingLog log;
  std::vector<char> record(kRecord, 'x');
  EXPECT_EQ(connection.server.Read(record.data(), kRecord, -1), 1);
  EXPECT_TRUE(log.has(5, "SocketMgr", "socket < 0 error\n"));
  EXPECT_EQ(record, std::vector<char>(kRecord, '\0'));
  EXPECT_EQ(connection.server.Write(record.data(), kRecord, -5), 1);
  EXPECT_EQ(log.count("socket < 0 error\n"), 2U);
  EXPECT_EQ(connection.server.ReadStruct(record.data(), kRecord, -1), -1);
  EXPECT_EQ(log.count("socket < 0 error\n"), 3U) << "it must not go round once for every byte";
}

TEST(Read, ZeroesTheBufferAndMayBeShort) {
  Connection connection;
  ASSERT_EQ(write(connection.fd(), "abc", 3), 3);
  std::string buffer(8, 'x');
  EXPECT_EQ(connection.client.Read(buffer.data(), 8, -1), 3);
  EXPECT_EQ(buffer, std::string("abc\0\0\0\0\0", 8));
  connection.accepted.reset();
  EXPECT_EQ(connection.client.Read(buffer.data(), 8, -1), 0) << "the end of the stream";
}

TEST(Read, OfAClientIgnoresTheDescriptorItIsGiven) {
  Connection connection;
  const UniqueFd other(open("/dev/zero", O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(write(connection.fd(), "abc", 3), 3);
  std::string buffer(3, 'x');
  EXPECT_EQ(connection.client.Read(buffer.data(), 3, other.get()), 3);
  EXPECT_EQ(buffer, "abc");
}

TEST(Read, EndsWithTheTimeOutOfTheConnection) {
  TempDir dir;
  SocketMgr server;
  SocketMgr client;
  ASSERT_EQ(server.init(dir / "sock", true), 0);
  ASSERT_EQ(server.Listen(1), 0);
  ASSERT_EQ(client.init(dir / "sock", false), 0);
  ASSERT_EQ(client.Connect(0, 20000), 0);
  RecordingLog log;
  char byte;
  EXPECT_EQ(client.Read(&byte, 1, -1), -1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("read fail", EAGAIN)));
  std::vector<char> record(kRecord);
  int written = 0;
  for (int i = 0; i < 1000 && written >= 0; ++i) written = client.Write(record.data(), kRecord, -1);
  EXPECT_EQ(written, -1) << "nobody reads, so the writes end too";
}

TEST(Connect, WithANegativeTimeOutDoesNotTouchTheSocket) {
  TempDir dir;
  SocketMgr server;
  SocketMgr client;
  ASSERT_EQ(server.init(dir / "sock", true), 0);
  ASSERT_EQ(server.Listen(1), 0);
  ASSERT_EQ(client.init(dir / "sock", false), 0);
  RecordingLog log;
  EXPECT_EQ(client.Connect(-1, 0), 1);
  EXPECT_EQ(client.Connect(0, -1), 1);
  EXPECT_TRUE(log.texts().empty());
  EXPECT_EQ(client.Connect(20, 0), 0) << "it was still unconnected";
}

TEST(Connect, FailsWhereNobodyListens) {
  TempDir dir;
  SocketMgr client;
  ASSERT_EQ(client.init(dir / "sock", false), 0);
  RecordingLog log;
  EXPECT_EQ(client.Connect(1, 0), 1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("connect() fail", ENOENT)));
}

TEST(Write, ToAPeerThatLeftIsAnErrorAndNoSignal) {
  signal(SIGPIPE, SIG_DFL);
  Connection connection;
  connection.accepted.reset();
  RecordingLog log;
  char byte = 'x';
  EXPECT_EQ(connection.client.Write(&byte, 1, -1), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("write fail", EPIPE)));
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(Write, ToABrokenPipeIsAnErrorAndNoSignal) {
  signal(SIGPIPE, SIG_DFL);
  Connection connection;
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);
  const UniqueFd writeEnd(ends[1]);
  char byte = 'x';
  EXPECT_EQ(connection.server.Write(&byte, 1, writeEnd.get()), -1);
}

TEST(Write, LeavesASignalAloneThatWasPendingBefore) {
  struct sigaction action {};
  static std::atomic<int> signals;
  action.sa_handler = [](int) { ++signals; };
  ASSERT_EQ(sigaction(SIGPIPE, &action, nullptr), 0);
  Connection connection;
  connection.accepted.reset();
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &pipe, nullptr), 0);
  ASSERT_EQ(pthread_kill(pthread_self(), SIGPIPE), 0);
  char byte = 'x';
  EXPECT_EQ(connection.client.Write(&byte, 1, -1), -1);
  ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr), 0);
  EXPECT_EQ(signals, 1);
  EXPECT_EQ(connection.client.Write(&byte, 1, -1), -1);
  EXPECT_EQ(signals, 1) << "the handler ran for a write";
}

TEST(Write, DoesNotContinueAShortWrite) {
  Connection connection;
  ASSERT_EQ(fcntl(connection.fd(), F_SETFL, O_NONBLOCK), 0);
  std::vector<char> much(16U << 20U);
  const int written =
      connection.server.Write(much.data(), static_cast<unsigned>(much.size()), connection.fd());
  EXPECT_GT(written, 0);
  EXPECT_LT(written, static_cast<int>(much.size()));
}

TEST(Write, OfNothingIsSuccess) {
  Connection connection;
  char byte = 'x';
  EXPECT_EQ(connection.server.Write(&byte, 0, connection.fd()), 0);
}

TEST(Close, OfAClientDescriptorReportsItsFailure) {
  Connection connection;
  RecordingLog log;
  const int fd = connection.accepted.release();
  EXPECT_EQ(connection.server.Close(fd), 0);
  EXPECT_EQ(connection.server.Close(fd), -1);
  EXPECT_TRUE(log.has(5, "SocketMgr", withErrno("close fail", EBADF)));
}

TEST(Close, OfTheOwnDescriptorIsRepeatedByTheDestructor) {
  TempDir dir;
  RecordingLog log;
  const int fd = nextDescriptor();
  {
    SocketMgr client;
    ASSERT_EQ(client.init(dir / "sock", false), 0);
    ASSERT_TRUE(isOpen(fd));
    EXPECT_EQ(client.Close(), 0);
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(log.texts().empty());
  }
  EXPECT_TRUE(
      log.has(5, "SocketMgr", withErrno("close m_sockfd " + std::to_string(fd) + " fail", EBADF)));
}

TEST(Close, NeverHappensToDescriptorZero) {
  const UniqueFd saved(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10));
  close(STDIN_FILENO);
  {
    SocketMgr client;
    ASSERT_EQ(client.init("/tmp/unused", false), 0);
  }
  EXPECT_TRUE(isOpen(STDIN_FILENO)) << "the socket had descriptor 0 and was closed";
  dup2(saved.get(), STDIN_FILENO);
}

}  // namespace
