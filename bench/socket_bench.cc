// What a status request costs on the control socket, beside a plain exchange of two records of
// the same size with a server that does nothing else. Both connect anew for every request.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "KxCommand.h"
#include "bench/Bench.h"
#include "frame/AnswerRecord.h"
#include "frame/ChildProcess.h"
#include "frame/UniqueFd.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;

constexpr int kRounds = 100;
constexpr int kExchangesPerRound = 50;
constexpr double kMostRatio = 2.0;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

UniqueFd newSocket() {
  return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

bool readWhole(int fd, KxSockData_s& record) {
  auto* bytes = reinterpret_cast<char*>(&record);
  for (size_t filled = 0; filled < sizeof record;) {
    const ssize_t count = read(fd, bytes + filled, sizeof record - filled);
    if (count <= 0) return false;
    filled += static_cast<size_t>(count);
  }
  return true;
}

bool exchange(const sockaddr_un& address, KxSockData_s& record) {
  const UniqueFd fd = newSocket();
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return false;
  return write(fd.get(), &record, sizeof record) == sizeof record && readWhole(fd.get(), record);
}

// Answers every record with itself, in a process of its own like the daemon.
[[noreturn]] void serveEchoes(int listening) {
  KxSockData_s record;
  for (;;) {
    const UniqueFd client(accept(listening, nullptr, nullptr));
    if (client && readWhole(client.get(), record)) [[maybe_unused]]
      const ssize_t written = write(client.get(), &record, sizeof record);
  }
}

ChildProcess startEchoServer(const sockaddr_un& address) {
  const UniqueFd listening = newSocket();
  if (bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listening.get(), 128) != 0)
    throw std::runtime_error("cannot listen");
  const pid_t pid = fork();
  if (pid == 0) serveEchoes(listening.get());
  return ChildProcess::adopt(pid);
}

void writeText(const std::string& file, const std::string& text) {
  fs::create_directories(fs::path(file).parent_path());
  FILE* out = fopen(file.c_str(), "we");
  if (out == nullptr || fputs(text.c_str(), out) < 0 || fclose(out) != 0)
    throw std::runtime_error("cannot write " + file);
}

// The daemon on a root of its own, in a control group that goes with it.
class Daemon {
 public:
  explicit Daemon(const kxbench::Folder& folder) : m_group("kxbench." + std::to_string(getpid())) {
    const std::string root = folder / "root";
    writeText(root + "/etc/platform.conf", "Platform = X86_GENERIC\n");
    writeText(root + "/etc/config/medialibrary.conf",
              "[TRANSCODESVR]\nLOG_LEVEL = 2\nCGROUP_NAME = " + m_group +
                  "\n[OPTIONS]\nMlsDataDir = " + root + "/data/\n");
    writeText(root + "/sbin/accelctl", "#!/bin/sh\n[ \"$1\" != -q ] || echo count=0\n");
    fs::permissions(root + "/sbin/accelctl", fs::perms(0755));
    const fs::path program = fs::canonical("/proc/self/exe").parent_path() / "xcoded";
    ChildProcess::Options options;
    options.stderrFile = folder / "xcoded.log";
    m_process = ChildProcess::spawn(
        {program.string(), "--root", root, "--foreground", "--socket", folder / "daemon.sock"},
        options);
    if (!m_process.valid()) throw std::runtime_error("cannot start " + program.string());
  }
  ~Daemon() {
    m_process.terminate(20s);
    for (const char* controller : {"cpu", "memory"})
      rmdir(("/sys/fs/cgroup/" + std::string(controller) + "/" + m_group).c_str());
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  void waitFor(const sockaddr_un& address) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    KxSockData_s record{};
    setRecordInt(record, 0, KX_CMD_GET_SVR_STATUS);
    while (!exchange(address, record)) {
      if (m_process.poll() || std::chrono::steady_clock::now() > deadline)
        throw std::runtime_error("the daemon does not answer");
      std::this_thread::sleep_for(10ms);
    }
  }

 private:
  std::string m_group;
  ChildProcess m_process;
};

void exchangeMany(const sockaddr_un& address) {
  KxSockData_s record{};
  for (int i = 0; i < kExchangesPerRound; ++i) {
    setRecordInt(record, 0, KX_CMD_GET_SVR_STATUS);
    if (!exchange(address, record)) throw std::runtime_error("an exchange failed");
    if (recordInt(record, 0) != KX_CMD_GET_SVR_STATUS) throw std::runtime_error("a wrong answer");
  }
}

// Milliseconds of one exchange in the fastest round: what the machine does besides only adds.
double fastest(const std::vector<double>& rounds) {
  return *std::min_element(rounds.begin(), rounds.end()) / kExchangesPerRound * 1e3;
}

int run() {
  const kxbench::Folder folder;
  const sockaddr_un plain = addressOf(folder / "plain.sock");
  const sockaddr_un control = addressOf(folder / "daemon.sock");
  ChildProcess echo = startEchoServer(plain);
  Daemon daemon(folder);
  daemon.waitFor(control);
  std::vector<double> plainTimes;
  std::vector<double> controlTimes;
  for (int round = 0; round < kRounds; ++round) {
    plainTimes.push_back(kxbench::seconds([&] { exchangeMany(plain); }));
    controlTimes.push_back(kxbench::seconds([&] { exchangeMany(control); }));
  }
  const double limit = fastest(plainTimes);
  kxbench::Report report;
  report.time("status request, connected anew", fastest(controlTimes), limit, limit * kMostRatio);
  return report.exitStatus();
}

}  // namespace

int main() {
  try {
    return run();
  } catch (const std::exception& error) {
    fprintf(stderr, "socket_bench: %s\n", error.what());
    return 2;
  }
}
