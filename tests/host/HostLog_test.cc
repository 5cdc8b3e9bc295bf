#include "host/HostLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

using kxtest::RecordingLog;
using kxtest::TempDir;

namespace {

// The log goes to a file of its own while this lives.
class FileLog {
 public:
  explicit FileLog(kxhost::LogSettings settings = {}) : m_settings(std::move(settings)) {
    if (m_settings.file.empty()) m_settings.file = m_dir / "service.log";
    m_settings.standardError = false;
    EXPECT_EQ(kxhost::configureLog(m_settings), 0);
  }
  ~FileLog() { kxhost::configureLog({}); }
  FileLog(const FileLog&) = delete;
  FileLog& operator=(const FileLog&) = delete;

  std::string text() const { return kxtest::readFile(m_settings.file); }
  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    std::istringstream stream(text());
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
  }
  std::string path() const { return m_settings.file; }

 private:
  TempDir m_dir;
  kxhost::LogSettings m_settings;
};

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void logPlain(const char* text) {
  myDebugUtilWrapperPrint(5, 0, "Source", 7, "function", "%s", text);
}

}  // namespace

TEST(HostLog, HandsTheSinkTheMessageAsItStands) {
  const RecordingLog log;
  myDebugUtilWrapperPrint(3, 0, "Misc", 12, "work", "a=%d\nb=%s\n", 4, "x");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].level, 3);
  EXPECT_EQ(log.lines()[0].source, "Misc");
  EXPECT_EQ(log.lines()[0].func, "work");
  EXPECT_EQ(log.lines()[0].text, "a=4\nb=x\n");
}

TEST(HostLog, KeepsErrno) {
  const FileLog file;
  errno = ENOTDIR;
  logPlain("anything\n");
  EXPECT_EQ(errno, ENOTDIR);
}

TEST(HostLog, PrintsANullStringAsNull) {
  const RecordingLog log;
  const char* nothing = nullptr;
  logPlain(nothing);
  EXPECT_TRUE(log.has("(null)"));
}

TEST(HostLog, AcceptsMessagesOfAnyLength) {
  const std::string longText(300000, 'x');
  const FileLog file;
  logPlain(longText.c_str());
  EXPECT_NE(file.text().find(longText), std::string::npos);
}

TEST(HostLog, WritesOneLinePerMessageWithOrWithoutALineEnd) {
  const FileLog file;
  logPlain("without");
  logPlain("with\n");
  logPlain("end");
  ASSERT_EQ(file.lines().size(), 3U);
  EXPECT_TRUE(endsWith(file.lines()[0], "L5 Source:7 function: without"));
  EXPECT_TRUE(endsWith(file.lines()[1], ": with"));
}

TEST(HostLog, EscapesControlCharactersSoThatAClientCannotForgeLines) {
  const FileLog file;
  logPlain("a\nb\rc\td\x1b[2J\x7f\n");
  ASSERT_EQ(file.lines().size(), 1U);
  EXPECT_TRUE(endsWith(file.lines()[0], R"(: a\nb\rc\td\x1b[2J\x7f)"));
}

TEST(HostLog, LeavesUnicodeButEscapesItsControlCharacters) {
  EXPECT_EQ(kxhost::printableLine("Grüße 日本"), "Grüße 日本");
  EXPECT_EQ(kxhost::printableLine("\xc2\x9b"
                                  "31m"),
            R"(\xc2\x9b31m)");
  EXPECT_EQ(kxhost::printableLine("\xc2"), "\xc2");
}

TEST(HostLog, WritesMessagesUpToTheConfiguredLevel) {
  kxhost::LogSettings settings;
  settings.level = 3;
  const FileLog file(settings);
  logPlain("detail\n");
  myDebugUtilWrapperPrint(2, 0, "Source", 1, "f", "failure\n");
  kxhost::setLogLevel(5);
  logPlain("now\n");
  ASSERT_EQ(file.lines().size(), 2U);
  EXPECT_TRUE(endsWith(file.lines()[0], "L2 Source:1 f: failure"));
  EXPECT_TRUE(endsWith(file.lines()[1], ": now"));
}

TEST(HostLog, RotatesTheFileAndKeepsTheConfiguredNumberOfOldOnes) {
  const TempDir dir;
  kxhost::LogSettings settings;
  settings.file = dir / "service.log";
  settings.maxFileBytes = 2000;
  settings.oldFiles = 2;
  const FileLog file(settings);
  const std::string text(200, 'y');
  for (int i = 0; i < 100; ++i) logPlain(text.c_str());
  EXPECT_LE(std::filesystem::file_size(settings.file), 2000U);
  EXPECT_TRUE(std::filesystem::exists(dir / "service.1.log"));
  EXPECT_TRUE(std::filesystem::exists(dir / "service.2.log"));
  EXPECT_FALSE(std::filesystem::exists(dir / "service.3.log"));
}

TEST(HostLog, FailsForAFileThatCannotBeOpened) {
  kxhost::LogSettings settings;
  settings.file = "/proc/no/such.log";
  EXPECT_EQ(kxhost::configureLog(settings), 1);
  kxhost::configureLog({});
}

TEST(HostLog, KeepsItsFileFromStartedPrograms) {
  const FileLog file;
  const auto list = kxtest::run({"/bin/sh", "-c", "ls -l /proc/self/fd"});
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->find("service.log"), std::string::npos);
  EXPECT_EQ(fcntl(open(file.path().c_str(), O_RDONLY | O_CLOEXEC), F_GETFD), FD_CLOEXEC);
}

TEST(HostLog, AForkedChildWritesToTheSameFileAndKeepsErrno) {
  const FileLog file;
  const pid_t child = fork();
  if (child == 0) {
    errno = EACCES;
    myDebugUtilWrapperPrint(5, 0, "Child", 3, "run", "from %s\x1b\n", "below");
    _exit(errno == EACCES ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(file.lines().size(), 1U);
  EXPECT_EQ(file.lines()[0], "[" + std::to_string(child) + "] L5 Child:3 run: from below\\x1b");
}

TEST(HostLog, AForkedChildKeepsToTheConfiguredLevel) {
  kxhost::LogSettings settings;
  settings.level = 3;
  const FileLog file(settings);
  const pid_t child = fork();
  if (child == 0) {
    logPlain("detail\n");
    myDebugUtilWrapperPrint(3, 0, "Child", 1, "f", "failure\n");
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  ASSERT_EQ(file.lines().size(), 1U);
  EXPECT_TRUE(endsWith(file.lines()[0], "L3 Child:1 f: failure"));
}

TEST(HostLog, AForkedChildCutsWhatItsStackCannotHold) {
  const FileLog file;
  const std::string longText(100000, 'z');
  const pid_t child = fork();
  if (child == 0) {
    logPlain(longText.c_str());
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(file.lines().size(), 1U);
  EXPECT_GT(file.lines()[0].size(), 4000U);
  EXPECT_LT(file.lines()[0].size(), 8192U);
}

// A fork while other threads are inside the logger copies its locks in the locked state; the
// child must get through all the same.
TEST(HostLog, AForkedChildNeverWaitsForALockOfItsParent) {
  const FileLog file;
  std::atomic<bool> keepOn{true};
  const auto writeOn = [&] {
    while (keepOn) logPlain("busy\n");
  };
  std::array<std::thread, 2> writers = {std::thread(writeOn), std::thread(writeOn)};
  bool allEnded = true;
  for (int i = 0; i < 50 && allEnded; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      logPlain("child\n");
      _exit(0);
    }
    allEnded = kxtest::waitUntil([&] { return waitpid(child, nullptr, WNOHANG) == child; },
                                 std::chrono::seconds(10));
    if (!allEnded) kill(child, SIGKILL);
  }
  keepOn = false;
  for (std::thread& writer : writers) writer.join();
  EXPECT_TRUE(allEnded);
}
