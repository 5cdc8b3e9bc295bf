#include "tests/daemon/DaemonRun.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "frame/UniqueFd.h"
#include "tests/daemon/Records.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace kxtest {

DaemonRoot::DaemonRoot() {
  for (const char* folder : {"etc/config", "sbin", "usr/local/medialibrary/bin", "media", "data"})
    fs::create_directories(m_dir / folder);
  // Clients of other users must get through to the socket.
  fs::permissions(m_dir.path(), fs::perms(0755));
  writeFile(m_dir / "etc/platform.conf", "Platform=X86_GENERIC\n");
  script("sbin/accelctl", "case $1 in -q) echo count=0;; esac\n");
  script("usr/local/medialibrary/bin/catalogcmd", "exit 0\n");
  script("usr/local/medialibrary/bin/xlogparse.sh", "exit 0\n");
  setEncoder("", "");
  configure("MAX_UNITS=2\n");
}

void DaemonRoot::configure(const std::string& keys) const {
  // A test machine with little room is no reason to start nothing.
  const std::string room = keys.find("MIN_FREE_MB") == std::string::npos ? "MIN_FREE_MB=1\n" : "";
  writeFile(m_dir / "etc/config/medialibrary.conf",
            "[TRANSCODESVR]\nCPU_LIMIT=100\n" + room + keys +
                "[OPTIONS]\nMlsDataDir=" + (m_dir / "data/") + "\n");
}

void DaemonRoot::setEncoder(const std::string& before, const std::string& options) const {
  script("usr/local/medialibrary/bin/ffmpeg", before + "\nexec ffmpeg " + options + " \"$@\"\n");
}

void DaemonRoot::useRealParser() const {
  fs::copy_file(KX_BUILD_DIR "/tools/xlogparse.sh",
                m_dir / "usr/local/medialibrary/bin/xlogparse.sh",
                fs::copy_options::overwrite_existing);
}

void DaemonRoot::script(const std::string& name, const std::string& body) const {
  // Renamed into place, because a running program cannot be written.
  writeFile(m_dir / (name + ".new"), "#!/bin/sh\n" + body);
  fs::permissions(m_dir / (name + ".new"), fs::perms(0755));
  fs::rename(m_dir / (name + ".new"), m_dir / name);
}

void DaemonRoot::install(const std::string& tool) const {
  fs::copy_file(std::string(KX_BUILD_DIR) + "/tools/" + tool,
                m_dir / ("usr/local/medialibrary/bin/" + tool),
                fs::copy_options::overwrite_existing);
}

std::vector<std::string> DaemonRoot::leftovers() const {
  std::vector<std::string> found;
  for (const char* folder : {"media/.@__thumb/temp", "data/.system/transcode"}) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(m_dir / folder, ignored))
      found.push_back(entry.path().string());
  }
  return found;
}

DaemonRun::DaemonRun(const DaemonRoot& root)
    : m_socket(root / "run/xcode/control.sock"), m_log(root / "daemon.log") {
  ChildProcess::Options options;
  options.stderrFile = m_log;
  m_child = ChildProcess::spawn({KX_BUILD_DIR "/bin/xcoded", "--foreground", "--root", root.path()},
                                options);
  const bool isUp =
      waitUntil([this] { return !isRunning() || (log().find("serving on") != std::string::npos); });
  if (!isUp || !isRunning()) ADD_FAILURE() << "the daemon did not start:\n" << log();
}

DaemonRun::~DaemonRun() {
  if (isRunning()) end(SIGKILL);
  // What a sanitizer finds in the daemon does not show in its exit status.
  for (const char* finding : {"ThreadSanitizer:", "AddressSanitizer:", "runtime error:"})
    EXPECT_EQ(log().find(finding), std::string::npos) << finding;
  if (testing::Test::HasFailure()) std::cerr << log();
}

int DaemonRun::end(int signalNumber) {
  m_child.signal(signalNumber);
  const auto status = m_child.waitFor(30s);
  EXPECT_TRUE(status) << "the daemon did not end";
  return status.value_or(-1);
}

int DaemonRun::connect() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  m_socket.copy(address.sun_path, sizeof address.sun_path - 1);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
  return fd.release();
}

std::unique_ptr<KxSockData_s> DaemonRun::ask(const KxSockData_s& request) const {
  const UniqueFd fd(connect());
  if (!fd) return nullptr;
  timeval limit{20, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (send(fd.get(), &request, sizeof request, MSG_NOSIGNAL) != sizeof request) return nullptr;
  auto answer = std::make_unique<KxSockData_s>();
  size_t have = 0;
  while (have < sizeof *answer) {
    const ssize_t count =
        recv(fd.get(), reinterpret_cast<char*>(answer.get()) + have, sizeof *answer - have, 0);
    if (count <= 0) return nullptr;
    have += static_cast<size_t>(count);
  }
  return answer;
}

std::unique_ptr<KxSockData_s> DaemonRun::ask(int32_t code, int32_t number,
                                             const nlohmann::json& object) const {
  auto request = object.is_null() ? makeRequest(code) : jsonRequest(code, object.dump());
  putNumber(*request, 1, number);
  return ask(*request);
}

int32_t DaemonRun::result(int32_t code, int32_t number, const nlohmann::json& object) const {
  const auto answer = ask(code, number, object);
  return answer ? numberOf(*answer, 1) : -1;
}

int64_t DaemonRun::add(const std::string& src, nlohmann::json more) const {
  more["src"] = src;
  if (!more.contains("jobFlag")) more["jobFlag"] = 1;
  const auto answer = ask(KX_CMD_ADD_JOB, 0, more);
  if (!answer) return -1;
  EXPECT_EQ(numberOf(*answer, 1), 0) << textOf(*answer);
  return jsonOf(*answer).value("id", int64_t{-1});
}

nlohmann::json DaemonRun::show(int64_t id) const {
  const auto answer = ask(KX_CMD_SHOW_JOB, 0, {{"id", id}});
  return answer ? jsonOf(*answer) : nlohmann::json();
}

int DaemonRun::status(int64_t id) const {
  const nlohmann::json row = show(id);
  return row.is_object() ? row.value("status", -1) : -1;
}

int64_t DaemonRun::count(int flags) const {
  const auto answer = ask(KX_CMD_COUNT_JOB, 0, {{"flags", flags}});
  return answer ? numberOf(*answer, 2) : -1;
}

nlohmann::json DaemonRun::units() const {
  const auto answer = ask(KX_CMD_GET_STATUS);
  return answer ? jsonOf(*answer) : nlohmann::json::array();
}

std::set<pid_t> DaemonRun::children() const {
  std::set<pid_t> pids;
  std::error_code ignored;
  for (const auto& task :
       fs::directory_iterator("/proc/" + std::to_string(pid()) + "/task", ignored)) {
    std::ifstream list(task.path() / "children");
    for (pid_t child = 0; list >> child;)
      if (processRuns(child)) pids.insert(child);
  }
  return pids;
}

pid_t DaemonRun::waitForEncoder() const {
  pid_t found = -1;
  waitUntil([&] {
    for (const auto& unit : units()) {
      if (unit.value("state", 0) == 2 && processRuns(unit.value("pid", -1)))
        found = unit.value("pid", -1);
    }
    return found > 0;
  });
  return found;
}

bool processRuns(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (pid <= 0 || !std::getline(file, text)) return false;
  const size_t state = text.rfind(')') + 2;
  return state < text.size() && text[state] != 'Z' && text[state] != 'X';
}

}  // namespace kxtest
