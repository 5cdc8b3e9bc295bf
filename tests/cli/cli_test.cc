// The client program against a socket that answers as the service does, and as it should not.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include <nlohmann/json.hpp>

#include "KxAbstractTranscodeSvr.h"
#include "KxCommand.h"
#include "frame/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace {

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

Outcome xcodectl(const std::vector<std::string>& arguments) {
  kxtest::TempDir dir;
  std::vector<std::string> argv = {KX_BUILD_DIR "/bin/xcodectl"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  ChildProcess::Options options;
  options.captureStdout = true;
  options.stderrFile = dir / "err";
  ChildProcess child = ChildProcess::spawn(argv, options);
  Outcome outcome;
  char buffer[4096];
  ssize_t count;
  while ((count = read(child.stdoutFd(), buffer, sizeof buffer)) > 0)
    outcome.out.append(buffer, static_cast<size_t>(count));
  const int status = child.wait();
  outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  outcome.err = kxtest::readFile(dir / "err");
  return outcome;
}

int32_t number(const KxSockData_s& record, size_t block) {
  int32_t value;
  std::memcpy(&value, record.block[block], sizeof value);
  return value;
}

// A socket with a handler for each request. The handler fills the answer and returns how many
// of its bytes are sent.
class Service {
 public:
  using Handler = std::function<size_t(const KxSockData_s& request, KxSockData_s& answer)>;

  Service(const std::string& path, Handler handler) : m_handler(std::move(handler)) {
    EXPECT_EQ(m_socket.init(path, true), 0);
    EXPECT_EQ(m_socket.Listen(8), 0);
    m_thread = std::thread([this] { run(); });
    m_path = path;
  }
  ~Service() {
    m_done = true;
    SocketMgr wakeUp;
    wakeUp.init(m_path, false);
    wakeUp.Connect(5, 0);
    m_thread.join();
  }

 private:
  void run() {
    auto request = std::make_unique<KxSockData_s>();
    auto answer = std::make_unique<KxSockData_s>();
    for (;;) {
      const int fd = m_socket.Accept();
      if (fd < 0 || m_done) {
        if (fd >= 0) m_socket.Close(fd);
        return;
      }
      if (m_socket.ReadStruct(request.get(), sizeof *request, fd) ==
          static_cast<int>(sizeof *request)) {
        std::memset(answer.get(), 0, sizeof *answer);
        std::memcpy(answer->block[0], request->block[0], sizeof(int32_t));
        const size_t length = m_handler(*request, *answer);
        if (length > 0) m_socket.Write(answer.get(), static_cast<unsigned>(length), fd);
      }
      m_socket.Close(fd);
    }
  }

  SocketMgr m_socket;
  Handler m_handler;
  std::thread m_thread;
  std::atomic<bool> m_done{false};
  std::string m_path;
};

}  // namespace

TEST(Client, SaysThatTheServiceIsNotThere) {
  kxtest::TempDir dir;
  const Outcome outcome = xcodectl({"--socket", dir / "nobody.sock", "status"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_NE(outcome.err.find("not running"), std::string::npos) << outcome.err;
  EXPECT_EQ(outcome.out, "");
}

TEST(Client, FindsTheSocketBelowTheRoot) {
  kxtest::TempDir dir;
  const Outcome outcome = xcodectl({"--root", dir.path().string(), "status"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_NE(outcome.err.find((dir / "run/xcode/control.sock")), std::string::npos) << outcome.err;
}

TEST(Client, RefusesWrongCommandLines) {
  EXPECT_EQ(xcodectl({}).exitCode, 2);
  EXPECT_EQ(xcodectl({"frobnicate"}).exitCode, 2);
  EXPECT_EQ(xcodectl({"show", "twelve"}).exitCode, 2);
  EXPECT_EQ(xcodectl({"limits", "--cpu", "101"}).exitCode, 2);
  EXPECT_EQ(xcodectl({"add", "/no/such/file", "-p", "original"}).exitCode, 2);
  EXPECT_EQ(xcodectl({"add", "/etc/hostname"}).exitCode, 2);
  EXPECT_EQ(xcodectl({"delete"}).exitCode, 2);
}

TEST(Client, PrintsItsVersionAndHelp) {
  EXPECT_EQ(xcodectl({"--version"}).exitCode, 0);
  const Outcome help = xcodectl({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const char* name : {"add",    "list",   "show",   "watch",     "wait",  "cancel",  "retry",
                           "delete", "move",   "swap",   "clean",     "start", "stop",    "pause",
                           "resume", "status", "limits", "resources", "units", "hwaccel", "dump"})
    EXPECT_NE(help.out.find(name), std::string::npos) << name;
}

TEST(Client, TellsAShortAnswerFromAGoodOne) {
  kxtest::TempDir dir;
  Service service(dir / "s.sock", [](const KxSockData_s&, KxSockData_s&) { return 4000; });
  const Outcome outcome = xcodectl({"--socket", dir / "s.sock", "resume"});
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_NE(outcome.err.find("without a whole answer"), std::string::npos) << outcome.err;
}

TEST(Client, TellsAnAnswerToAnotherRequest) {
  kxtest::TempDir dir;
  Service service(dir / "s.sock", [](const KxSockData_s&, KxSockData_s& answer) {
    const int32_t other = 99;
    std::memcpy(answer.block[0], &other, sizeof other);
    return sizeof answer;
  });
  EXPECT_EQ(xcodectl({"--socket", dir / "s.sock", "resume"}).exitCode, 5);
}

TEST(Client, TellsTextThatIsNoJson) {
  kxtest::TempDir dir;
  Service service(dir / "s.sock", [](const KxSockData_s&, KxSockData_s& answer) {
    std::strcpy(answer.block[KxSockData_s::kTextBlock], "[1,2");
    return sizeof answer;
  });
  EXPECT_EQ(xcodectl({"--socket", dir / "s.sock", "units"}).exitCode, 5);
}

TEST(Client, GivesUpOnASilentService) {
  kxtest::TempDir dir;
  std::atomic<bool> leave{false};
  Service service(dir / "s.sock", [&](const KxSockData_s&, KxSockData_s&) {
    kxtest::waitUntil([&] { return leave.load(); });
    return 0;
  });
  const Outcome outcome = xcodectl({"--socket", dir / "s.sock", "--timeout", "1", "resume"});
  leave = true;
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_NE(outcome.err.find("within 1 s"), std::string::npos) << outcome.err;
}

TEST(Client, RepeatsTheServicesOwnWordsOfARefusal) {
  kxtest::TempDir dir;
  Service service(dir / "s.sock", [](const KxSockData_s&, KxSockData_s& answer) {
    const int32_t failed = 1;
    std::memcpy(answer.block[1], &failed, sizeof failed);
    std::strcpy(answer.block[KxSockData_s::kTextBlock], R"({"error":"no such job"})");
    return sizeof answer;
  });
  const Outcome outcome = xcodectl({"--socket", dir / "s.sock", "retry", "7"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.err, "xcodectl: no such job\n");
}

TEST(Client, SendsTheProfilesAsRowBits) {
  kxtest::TempDir dir;
  kxtest::writeFile(dir / "clip one.mp4", "x");
  nlohmann::json sent;
  Service service(dir / "s.sock", [&](const KxSockData_s& request, KxSockData_s& answer) {
    EXPECT_EQ(number(request, 0), KX_CMD_ADD_JOB);
    sent = nlohmann::json::parse(request.block[KxSockData_s::kTextBlock]);
    std::strcpy(answer.block[KxSockData_s::kTextBlock], R"({"id":5})");
    return sizeof answer;
  });
  const Outcome outcome = xcodectl({"--socket", dir / "s.sock", "add", dir / "clip one.mp4",
                                    "--profile", "mobile480p,video2audio", "--rotate", "90",
                                    "--audio", "1", "--subtitle-track", "2"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(
      xcodectl({"--socket", dir / "s.sock", "add", "-p", "mobile480p", "-p", "video2audio",
                "--rotate", "90", "--audio", "1", "--subtitle-track", "2", dir / "clip one.mp4"})
          .exitCode,
      0)
      << "options before the files";
  EXPECT_EQ(sent["src"], dir / "clip one.mp4");
  EXPECT_EQ(sent["jobFlag"], 0x44);
  EXPECT_EQ(sent["rotation"], 90);
  EXPECT_EQ(sent["aid"], 1);
  EXPECT_EQ(sent["sid"], 2);
  EXPECT_NE(outcome.out.find("Job 5"), std::string::npos);
}

TEST(Client, SendsANameThatIsNotUtf8AsItIs) {
  kxtest::TempDir dir;
  const std::string path = dir / "caf\xe9.mp4";
  kxtest::writeFile(path, "x");
  std::string block;
  nlohmann::json sent;
  Service service(dir / "s.sock", [&](const KxSockData_s& request, KxSockData_s& answer) {
    block = request.block[1];
    sent = nlohmann::json::parse(request.block[KxSockData_s::kTextBlock]);
    return sizeof answer;
  });
  EXPECT_EQ(xcodectl({"--socket", dir / "s.sock", "add", path, "-p", "original"}).exitCode, 0);
  EXPECT_EQ(block, path);
  EXPECT_FALSE(sent.contains("src"));
}

TEST(Client, TellsAMissingRightByItsExitStatus) {
  kxtest::TempDir dir;
  Service service(dir / "s.sock", [](const KxSockData_s&, KxSockData_s& answer) {
    const int32_t failed = 1;
    std::memcpy(answer.block[1], &failed, sizeof failed);
    std::strcpy(answer.block[KxSockData_s::kTextBlock], R"({"error":"permission denied"})");
    return sizeof answer;
  });
  EXPECT_EQ(xcodectl({"--socket", dir / "s.sock", "stop"}).exitCode, 4);
}

TEST(Client, PagesThroughLongLists) {
  kxtest::TempDir dir;
  Service service(dir / "s.sock", [](const KxSockData_s& request, KxSockData_s& answer) {
    const int32_t first = number(request, 1);
    const int32_t total = 5;
    nlohmann::json rows = nlohmann::json::array();
    for (int32_t i = first; i < std::min(first + 2, total); ++i)
      rows.push_back({{"id", i}, {"state", 2}, {"progress", 10 * i}, {"src", "/v/f.mp4"}});
    std::memcpy(answer.block[2], &total, sizeof total);
    std::strcpy(answer.block[KxSockData_s::kTextBlock], rows.dump().c_str());
    return sizeof answer;
  });
  const Outcome outcome = xcodectl({"--socket", dir / "s.sock", "--json", "units"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  const auto rows = nlohmann::json::parse(outcome.out);
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(rows[4]["id"], 4);
}

TEST(Client, WaitTellsTheOutcomeByItsExitStatus) {
  kxtest::TempDir dir;
  std::atomic<int> asked{0};
  Service service(dir / "s.sock", [&](const KxSockData_s& request, KxSockData_s& answer) {
    const auto id = nlohmann::json::parse(request.block[KxSockData_s::kTextBlock])["id"];
    int status = id == 1 ? 1 : id == 2 ? 2 : 5;
    if (++asked < 3) status = 3;  // still running at first
    const nlohmann::json row = {{"id", id}, {"status", status}, {"reason", "encoder died"}};
    std::strcpy(answer.block[KxSockData_s::kTextBlock], row.dump().c_str());
    return sizeof answer;
  });
  EXPECT_EQ(xcodectl({"--socket", dir / "s.sock", "wait", "1"}).exitCode, 0);
  EXPECT_GE(asked.load(), 3);
  const Outcome failed = xcodectl({"--socket", dir / "s.sock", "wait", "1", "2", "3"});
  EXPECT_EQ(failed.exitCode, 6);
  EXPECT_NE(failed.out.find("Job 2 failed: encoder died"), std::string::npos) << failed.out;
  EXPECT_EQ(xcodectl({"--socket", dir / "s.sock", "wait", "3"}).exitCode, 7);
}

namespace {

void putText(KxSockData_s& record, const std::string& text) {
  std::memcpy(record.block[KxSockData_s::kTextBlock], text.c_str(), text.size() + 1);
}

}  // namespace

TEST(Client, ShowTellsWhatThereIsOfEveryResult) {
  kxtest::TempDir dir;
  std::filesystem::create_directory(dir / "a.pdf.album");
  for (const char* page : {"a-1.jpg", "a-2.jpg"})
    kxtest::writeFile(dir / "a.pdf.album/" + page, "x");
  kxtest::writeFile(dir / "a.mp4", std::string(1500, 'x'));
  Service service(dir / "s.sock", [&](const KxSockData_s&, KxSockData_s& answer) {
    nlohmann::json outputs = nlohmann::json::array();
    for (const char* name : {"a.pdf.album/", "a.mp4", "absent.mp4"})
      outputs.push_back({{"profile", "p"}, {"path", dir / name}});
    putText(answer, nlohmann::json{{"id", 1}, {"outputs", outputs}}.dump());
    return sizeof answer;
  });
  const std::string out = xcodectl({"--socket", dir / "s.sock", "show", "1"}).out;
  for (const char* result : {"a.pdf.album/ (2 pages)", "a.mp4 (1.5 kB)", "absent.mp4 (not there)"})
    EXPECT_NE(out.find(dir / result), std::string::npos) << out;
}

TEST(Client, AFolderIsSentWithTheBitsOfItsProfiles) {
  kxtest::TempDir dir;
  std::vector<std::string> seen;
  const Service service(dir / "s", [&](const KxSockData_s& request, KxSockData_s& answer) {
    seen.push_back(std::to_string(number(request, 0)) + " " + request.block[1] + " " +
                   request.block[2]);
    return sizeof answer;
  });
  const auto run = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"--socket", dir / "s"});
    return xcodectl(words).exitCode;
  };
  EXPECT_EQ(run({"folder", "add", "/videos//x/", "--profile", "mobile480p,video2audio"}), 0);
  EXPECT_EQ(run({"folder", "update", "--all", "/videos"}), 0);
  EXPECT_EQ(run({"folder", "remove", "/videos"}), 0);
  EXPECT_EQ(run({"scan"}), 0);
  EXPECT_EQ(run({"scan", "--stop"}), 0);
  EXPECT_EQ(run({"folder", "add", "/videos"}), 2) << "no profile";
  EXPECT_EQ(run({"folder", "add", "/videos", "--profile", "huge"}), 2);
  EXPECT_EQ(run({"folder"}), 2);
  EXPECT_EQ(seen, (std::vector<std::string>{"15 /videos/x 68", "17 /videos 127", "16 /videos ",
                                            "18  ", "19  "}));
}

TEST(Client, TheFolderListTellsWhatIsNotWatchedAndWhatWasLost) {
  kxtest::TempDir dir;
  const Service service(dir / "s", [](const KxSockData_s& request, KxSockData_s& answer) {
    // One folder a page.
    const bool isFirst = number(request, 1) == 0;
    const int32_t total = 2;
    std::memcpy(answer.block[2], &total, sizeof total);
    const std::string row =
        isFirst ? R"({"path":"/a","target":5,"state":"watched","error":""})"
                : R"({"path":"/b\u001b[2J","target":1,"state":"partial","error":"full"})";
    putText(answer, R"({"scanning":"/a","queuedScans":2,"lostEvents":3,"lastLost":1000,)"
                    R"("needsScan":true,"folders":[)" +
                        row + "]}");
    return sizeof answer;
  });
  const Outcome outcome = xcodectl({"--socket", dir / "s", "folder", "list"});
  EXPECT_EQ(outcome.exitCode, 0);
  for (const char* part :
       {"mobile240p,mobile480p  watched", "PARTLY WATCHED: the limit of watches is reached  /b",
        "Watching has not begun", "Scanning /a.", "Scans that wait: 2.",
        "Times that events were lost: 3", "a scan will repair it"})
    EXPECT_NE(outcome.out.find(part), std::string::npos) << part << "\n" << outcome.out;
  EXPECT_EQ(outcome.out.find('\033'), std::string::npos);
  const Outcome json = xcodectl({"--socket", dir / "s", "--json", "folder", "list"});
  EXPECT_EQ(nlohmann::json::parse(json.out).at("folders").size(), 2U);
}

TEST(Client, TheConfigurationIsPrintedAsItComes) {
  kxtest::TempDir dir;
  const Service service(dir / "s", [](const KxSockData_s&, KxSockData_s& answer) {
    const std::string text = "/a:4\n/b:8\n";
    std::memcpy(&answer, text.data(), text.size());
    return text.size();
  });
  EXPECT_EQ(xcodectl({"--socket", dir / "s", "config"}).out, "/a:4\n/b:8\n");
}
