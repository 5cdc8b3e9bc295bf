#include "Misc.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <new>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "frame/ChildProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using kxtest::PrivateRoot;
using kxtest::readFile;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;

TEST(Numbers, AreWrittenAsAStreamWritesThem) {
  EXPECT_EQ(int_to_str(0), "0");
  EXPECT_EQ(int_to_str(-2147483647 - 1), "-2147483648");
  EXPECT_EQ(double_to_str(23.976023976), "23.976");
  EXPECT_EQ(double_to_str(1e10), "1e+10");
  EXPECT_EQ(double_to_str(30), "30");
}

TEST(SystemPath, StaysAsItIsWithoutAPrivateRoot) {
  EXPECT_EQ(miscSystemPath("/etc/platform.conf"), "/etc/platform.conf");
  miscSetSystemRoot("/tmp/root//");
  EXPECT_EQ(miscSystemPath("/etc/platform.conf"), "/tmp/root/etc/platform.conf");
  miscSetSystemRoot("");
  EXPECT_EQ(miscSystemPath("/etc/platform.conf"), "/etc/platform.conf");
}

TEST(PackageInfo, ReadsAKeyAndLogsIt) {
  PrivateRoot root;
  root.write("/etc/config/kxpkg.conf", "[Player]\nVersion = 1.2.3\n");
  RecordingLog log;
  std::string value = "before";
  EXPECT_EQ(miscGetKXPKGInfo("", "Version", value), 1);
  EXPECT_EQ(miscGetKXPKGInfo("Player", "", value), 1);
  EXPECT_EQ(miscGetKXPKGInfo("Player", "Missing", value), 1);
  EXPECT_EQ(miscGetKXPKGInfo("Other", "Version", value), 1);
  EXPECT_EQ(value, "before");
  EXPECT_EQ(miscGetKXPKGInfo("Player", "Version", value), 0);
  EXPECT_EQ(value, "1.2.3");
  EXPECT_TRUE(log.has(5, "Misc", "Player Version=[1.2.3]\n"));
}

TEST(MediaDataDirectory, IsTheConfiguredOneAsItStands) {
  PrivateRoot root;
  root.write("/etc/config/medialibrary.conf", "[OPTIONS]\nMlsDataDir = /var/lib/media\n");
  fs::create_directories(root.file("/share/Public"));
  std::string path;
  EXPECT_EQ(miscGetHDDPath(path), 0);
  EXPECT_EQ(path, "/var/lib/media");
}

TEST(MediaDataDirectory, IsElseTheVolumeOfTheFirstShareThatResolves) {
  PrivateRoot root;
  root.write("/etc/config/medialibrary.conf", "[OPTIONS]\nMlsDataDir =\n");
  const std::string volume = fs::canonical(root.path()).string() + "/volume/";
  fs::create_directories(volume + "Multimedia");
  fs::create_directories(volume + "other/Kxmultimedia");
  fs::create_symlink("no-such-target", root.file("/share/Public"));
  fs::create_symlink(volume + "Multimedia", root.file("/share/Multimedia"));
  fs::create_symlink(volume + "other/Kxmultimedia", root.file("/share/Kxmultimedia"));
  std::string path;
  EXPECT_EQ(miscGetHDDPath(path), 0);
  EXPECT_EQ(path, volume);
}

TEST(MediaDataDirectory, IsCutAtTheFirstOccurrenceOfTheShareName) {
  PrivateRoot root;
  const std::string volume = fs::canonical(root.path()).string() + "/";
  fs::create_directories(volume + "MyPublic/Public");
  fs::create_symlink(volume + "MyPublic/Public", root.file("/share/Public"));
  std::string path;
  EXPECT_EQ(miscGetHDDPath(path), 0);
  EXPECT_EQ(path, volume + "My");
}

TEST(MediaDataDirectory, FailsWhenNoShareResolvesOrTheNameIsNotInIt) {
  PrivateRoot root;
  std::string path = "before";
  EXPECT_EQ(miscGetHDDPath(path), 1);
  const std::string volume = fs::canonical(root.path()).string() + "/";
  fs::create_directories(volume + "films");
  fs::create_directories(volume + "share/Multimedia");
  fs::create_symlink(volume + "films", root.file("/share/Public"));
  EXPECT_EQ(miscGetHDDPath(path), 1);
  EXPECT_EQ(path, "before");
}

TEST(UniqueFileName, LeadsWithTheProcessIdAndNeverRepeats) {
  std::set<std::string> names;
  const std::string pid = std::to_string(getpid()) + "_";
  for (int i = 0; i < 100; ++i) {
    std::string name;
    EXPECT_EQ(miscGenUniqueFileName(name), 0);
    EXPECT_EQ(name.substr(0, pid.size()), pid);
    EXPECT_EQ(std::count(name.begin(), name.end(), '_'), 3) << name;
    EXPECT_EQ(name.size() - name.rfind('_'), 7U) << name;
    EXPECT_EQ(name.find_first_not_of("0123456789abcdef", name.rfind('_') + 1), std::string::npos);
    EXPECT_EQ(name.find_first_of("%/"), std::string::npos);
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 100U);
}

TEST(CommandLine, IsLoggedWithBlanksBetweenItsWords) {
  RecordingLog log;
  miscPrintCmdVec({"ffmpeg", "-i", "/a b.mp4"});
  EXPECT_TRUE(log.has(5, "Misc", "cmd=ffmpeg -i /a b.mp4\n"));
}

TEST(Mutex, CallsReturnTheValueOfThePthreadCall) {
  RecordingLog log;
  pthread_mutex_t mutex;
  EXPECT_EQ(miscMutexInit(mutex, nullptr), 0);
  EXPECT_EQ(miscMutexLock(mutex), 0);
  EXPECT_EQ(miscMutexUnLock(mutex), 0);
  EXPECT_EQ(miscMutexDestroy(mutex), 0);
  EXPECT_TRUE(log.texts().empty());
}

class CheckingMutex {
 public:
  CheckingMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    miscMutexInit(m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  ~CheckingMutex() { pthread_mutex_destroy(&m_mutex); }
  CheckingMutex(const CheckingMutex&) = delete;
  CheckingMutex& operator=(const CheckingMutex&) = delete;
  pthread_mutex_t& get() { return m_mutex; }

 private:
  pthread_mutex_t m_mutex;
};

std::string withErrno(const std::string& text, int error) {
  return text + ", errno=" + std::to_string(error) + ", strerror=" + strerror(error) + "\n";
}

TEST(Mutex, FailuresAreLoggedWithErrnoAndNotWithTheReturnedCode) {
  if (kxtest::kThreadSanitizer) GTEST_SKIP() << "the sanitizer reports the misuse itself";
  CheckingMutex mutex;
  RecordingLog log;
  errno = ENOENT;
  EXPECT_EQ(miscMutexUnLock(mutex.get()), EPERM);
  EXPECT_TRUE(log.has(5, "Misc", withErrno("mutex unlock fail", ENOENT)));
  EXPECT_EQ(miscMutexLock(mutex.get()), 0);
  EXPECT_EQ(miscMutexLock(mutex.get()), EDEADLK);
  EXPECT_TRUE(log.has(5, "Misc", withErrno("mutex lock fail", ENOENT)));
  EXPECT_EQ(miscMutexDestroy(mutex.get()), EBUSY);
  EXPECT_TRUE(log.has(5, "Misc", withErrno("destory mutex error", ENOENT)));
  EXPECT_EQ(log.lines().front().func, "miscMutexUnLock");
  EXPECT_EQ(miscMutexUnLock(mutex.get()), 0);
}

TEST(Mutex, TryLockReturnsErrnoWhetherItLockedOrNot) {
  CheckingMutex mutex;
  RecordingLog log;
  errno = ENOENT;
  EXPECT_EQ(miscMutexTryLock(mutex.get()), ENOENT) << "locked, and still the old errno";
  EXPECT_TRUE(log.texts().empty());
  errno = 0;
  EXPECT_EQ(miscMutexTryLock(mutex.get()), 0) << "not locked, and still the old errno";
  EXPECT_TRUE(log.has(withErrno("mutex lock fail", 0)));
  EXPECT_EQ(miscMutexUnLock(mutex.get()), 0);
}

TEST(ReadWriteLock, CallsReturnTheValueOfThePthreadCall) {
  RecordingLog log;
  pthread_rwlock_t lock;
  EXPECT_EQ(miscRWLockInit(lock, nullptr), 0);
  EXPECT_EQ(miscRWLockRdLock(lock), 0);
  EXPECT_EQ(miscRWLockTryRdLock(lock), 0);
  EXPECT_EQ(miscRWLockUnLock(lock), 0);
  EXPECT_EQ(miscRWLockUnLock(lock), 0);
  EXPECT_EQ(miscRWLockTryWrLock(lock), 0);
  EXPECT_EQ(miscRWLockUnLock(lock), 0);
  EXPECT_EQ(miscRWLockWrLock(lock), 0);
  errno = ENOENT;
  EXPECT_EQ(miscRWLockRdLock(lock), EDEADLK);
  EXPECT_EQ(miscRWLockWrLock(lock), EDEADLK);
  EXPECT_EQ(miscRWLockUnLock(lock), 0);
  EXPECT_EQ(miscRWLockDestroy(lock), 0);
  const std::vector<std::string> expected = {withErrno("rwlock rdlock fail", ENOENT),
                                             withErrno("rwlock wrlock fail", ENOENT)};
  EXPECT_EQ(log.texts(), expected);
}

TEST(ReadWriteLock, TryLocksAreSilentOnlyWhenErrnoHoldsBusy) {
  pthread_rwlock_t lock;
  ASSERT_EQ(miscRWLockInit(lock, nullptr), 0);
  ASSERT_EQ(miscRWLockWrLock(lock), 0);
  RecordingLog log;
  errno = EBUSY;
  EXPECT_EQ(miscRWLockTryRdLock(lock), EBUSY);
  EXPECT_EQ(miscRWLockTryWrLock(lock), EBUSY);
  EXPECT_TRUE(log.texts().empty());
  errno = 0;
  EXPECT_EQ(miscRWLockTryRdLock(lock), EBUSY);
  EXPECT_EQ(miscRWLockTryWrLock(lock), EBUSY);
  EXPECT_EQ(errno, 0) << "errno is only read";
  const std::vector<std::string> expected = {withErrno("rwlock rdlock fail", 0),
                                             withErrno("rwlock wrlock fail", 0)};
  EXPECT_EQ(log.texts(), expected);
  errno = EBUSY;
  EXPECT_EQ(miscRWLockUnLock(lock), 0);
  EXPECT_EQ(miscRWLockTryWrLock(lock), 0) << "a lock that was taken counts, not errno";
  EXPECT_EQ(miscRWLockUnLock(lock), 0);
  EXPECT_EQ(miscRWLockDestroy(lock), 0);
}

int runLaunched(const std::vector<std::string>& cmd, const std::string& logFile) {
  ChildProcess child = ChildProcess::adopt(miscLaunchCmdNoWait(cmd, logFile));
  EXPECT_TRUE(child.valid());
  return child.waitFor(20s).value_or(-1);
}

TEST(LaunchedCommand, WritesOnlyItsStandardErrorIntoTheLogFileAndReplacesAnOlderOne) {
  TempDir dir;
  writeFile(dir / "log", "an older log, longer than the new one");
  struct stat before {};
  ASSERT_EQ(stat((dir / "log").c_str(), &before), 0);
  const int kept = open((dir / "log").c_str(), O_RDONLY | O_CLOEXEC);
  RecordingLog log;
  EXPECT_EQ(runLaunched({"sh", "-c", "echo out; echo err >&2"}, dir / "log"), 0);
  EXPECT_EQ(readFile(dir / "log"), "err\n");
  struct stat after {};
  ASSERT_EQ(stat((dir / "log").c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino) << "the older file was written over, not replaced";
  close(kept);
  EXPECT_TRUE(log.has(5, "Misc", "cmd=sh -c echo out; echo err >&2\n"));
}

TEST(LaunchedCommand, ReplacesALinkInsteadOfFollowingIt) {
  TempDir dir;
  writeFile(dir / "precious", "keep me");
  fs::create_symlink(dir / "precious", dir / "log");
  EXPECT_EQ(runLaunched({"sh", "-c", "echo err >&2"}, dir / "log"), 0);
  EXPECT_EQ(readFile(dir / "precious"), "keep me");
  EXPECT_FALSE(fs::is_symlink(dir / "log"));
}

TEST(LaunchedCommand, FailsWithoutWords) {
  RecordingLog log;
  EXPECT_EQ(miscLaunchCmdNoWait({}, ""), -1);
  EXPECT_TRUE(log.has(5, "Misc", "empty cmd vector\n"));
}

TEST(LaunchedCommand, ThatDoesNotExistExitsWithOne) {
  const int status = runLaunched({"/no/such/program"}, "");
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST(LaunchedCommand, WithALogFileThatCannotBeOpenedExitsWithMinusOne) {
  const int status = runLaunched({"true"}, "/no/such/folder/log");
  EXPECT_EQ(WEXITSTATUS(status), 255);
}

TEST(LaunchedCommand, IsNotHeldUpByAnOldLogFolderThatCannotBeRemoved) {
  TempDir dir;
  fs::create_directories(dir / "log/inside");
  EXPECT_EQ(WEXITSTATUS(runLaunched({"true"}, dir / "log")), 255);
  EXPECT_TRUE(fs::exists(dir / "log/inside"));
}

TEST(LaunchedCommand, InheritsStandardErrorWithoutALogFile) {
  TempDir dir;
  const int target = open((dir / "stderr").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
  dup2(target, STDERR_FILENO);
  const int status = runLaunched({"sh", "-c", "echo err >&2"}, "");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(target);
  EXPECT_EQ(status, 0);
  EXPECT_NE(readFile(dir / "stderr").find("err\n"), std::string::npos);
}

TEST(LaunchedCommand, DiesWithTheThreadThatStartedItEvenWhereThatBlocksTheSignal) {
  pid_t pid = -1;
  std::thread([&] {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    pid = miscLaunchCmdNoWait({"sleep", "60"}, "");
    // A thread that ends before the child has armed its death signal is not noticed.
    kxtest::waitUntil([&] { return readFile("/proc/" + int_to_str(pid) + "/comm") == "sleep\n"; });
  }).join();
  ChildProcess child = ChildProcess::adopt(pid);
  const auto status = child.waitFor(20s);
  ASSERT_TRUE(status);
  EXPECT_EQ(WTERMSIG(*status), SIGTERM);
}

TEST(LaunchedCommand, LeadsAProcessGroupThatIsStoppedAsAWhole) {
  const TempDir dir;
  const std::string note = dir / "grandchild";
  const int pid = miscLaunchCmdNoWait(
      {"sh", "-c", "trap '' TERM; sleep 60 & echo $! > '" + note + "'; wait"}, "");
  ASSERT_GT(pid, 0);
  EXPECT_EQ(getpgid(pid), pid);
  ASSERT_TRUE(kxtest::waitUntil([&] { return readFile(note).ends_with("\n"); }));
  const pid_t grandchild = atoi(readFile(note).c_str());
  ChildProcess::adopt(pid).terminate(100ms);
  EXPECT_TRUE(kxtest::waitUntil([&] {
    const std::string status = readFile("/proc/" + int_to_str(grandchild) + "/status");
    return status.empty() || status.find("State:\tZ") != std::string::npos;
  }));
}

TEST(WaitStatus, YieldsTheExitCodeOrTheSignalNumber) {
  RecordingLog log;
  EXPECT_EQ(miscAnalysisRet(3 << 8), 3);
  EXPECT_EQ(miscAnalysisRet(9), 9);
  EXPECT_EQ(miscAnalysisRet(0), 0);
  EXPECT_EQ(miscAnalysisRet(0x137f), 1) << "a stopped child";
  const std::vector<std::string> expected = {"child normal exit, ret=3\n",
                                             "child exit by receive signal, signal=9\n",
                                             "child normal exit, ret=0\n", "other conidtion\n"};
  EXPECT_EQ(log.texts(), expected);
}

TEST(WaitStatus, OfARealChildIsDecoded) {
  EXPECT_EQ(miscAnalysisRet(runLaunched({"sh", "-c", "exit 3"}, "")), 3);
  EXPECT_EQ(miscAnalysisRet(runLaunched({"sh", "-c", "kill -9 $$"}, "")), 9);
}

TEST(SystemReturn, IsZeroOnlyForACommandThatExitedWithZero) {
  RecordingLog log;
  EXPECT_EQ(checkSystemReturn(0), 0);
  EXPECT_EQ(checkSystemReturn(256), 1);
  EXPECT_EQ(checkSystemReturn(9), 1);
  EXPECT_EQ(checkSystemReturn(-1), 1);
  const std::vector<std::string> expected = {
      "command return non zero 1\n",
      "WIFEXITED return false child process terminate not normally\n",
      "system command fork child process failed\n"};
  EXPECT_EQ(log.texts(), expected);
}

void setTimes(const std::string& path, time_t access, time_t modified) {
  utimbuf times{};
  times.actime = access;
  times.modtime = modified;
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}

TEST(ModificationTime, IsComparedToTheSecond) {
  TempDir dir;
  writeFile(dir / "a", "a");
  writeFile(dir / "b", "b");
  timespec times[2] = {{1000, 0}, {1000, 999999999}};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir / "a").c_str(), times, 0), 0);
  setTimes(dir / "b", 5, 1000);
  EXPECT_TRUE(miscCompareModTime(dir / "a", dir / "b"));
  setTimes(dir / "b", 5, 1001);
  EXPECT_FALSE(miscCompareModTime(dir / "a", dir / "b"));
  EXPECT_FALSE(miscCompareModTime(dir / "a", dir / "missing"));
  EXPECT_FALSE(miscCompareModTime(dir / "missing", dir / "missing"));
}

TEST(ModificationTime, IsCopiedTogetherWithTheAccessTime) {
  TempDir dir;
  writeFile(dir / "a", "a");
  writeFile(dir / "b", "b");
  setTimes(dir / "a", 1234, 5678);
  EXPECT_EQ(miscSetSameModTime(dir / "a", dir / "b"), 0);
  struct stat info {};
  ASSERT_EQ(stat((dir / "b").c_str(), &info), 0);
  EXPECT_EQ(info.st_atime, 1234);
  EXPECT_EQ(info.st_mtime, 5678);
  EXPECT_EQ(miscSetSameModTime(dir / "missing", dir / "b"), 1);
  EXPECT_EQ(miscSetSameModTime(dir / "a", dir / "missing"), 1);
}

TEST(FolderName, IsRefusedWhenItHoldsTheNameOfAHiddenSystemFolder) {
  for (const char* name : {".", "..", "@Recycle", "@Recycle.old", "x.@__thumb", "my@Transcodes"})
    EXPECT_FALSE(isValidDirName(name)) << name;
  for (const char* name : {".hidden", "...", "", "@recycle", "films"})
    EXPECT_TRUE(isValidDirName(name)) << name;
}

TEST(Path, IsValidWhenItExistsOutsideTheHiddenSystemFolders) {
  TempDir dir;
  fs::create_directories(dir / "films/.@__thumb");
  fs::create_symlink("no-such-target", dir / "dangling");
  EXPECT_TRUE(isValidPath(dir / "films"));
  EXPECT_TRUE(isValidPath(dir / "dangling")) << "the link itself exists";
  EXPECT_FALSE(isValidPath(dir / "films/.@__thumb"));
  EXPECT_FALSE(isValidPath(dir / "missing"));
}

TEST(FolderPath, EndsInExactlyTheSlashItHasOrGetsOne) {
  EXPECT_EQ(convertFolderPath("/share/a"), "/share/a/");
  EXPECT_EQ(convertFolderPath("/share/a/"), "/share/a/");
  EXPECT_EQ(convertFolderPath("/share/a//"), "/share/a//");
  EXPECT_EQ(convertFolderPath(""), "/");
}

TEST(Directory, IsNotALinkToOne) {
  TempDir dir;
  fs::create_directory(dir / "folder");
  fs::create_directory_symlink(dir / "folder", dir / "link");
  writeFile(dir / "file", "");
  RecordingLog log;
  EXPECT_TRUE(isdir(dir / "folder"));
  EXPECT_FALSE(isdir(dir / "link"));
  EXPECT_FALSE(isdir(dir / "file"));
  EXPECT_TRUE(log.texts().empty());
  EXPECT_FALSE(isdir("/no/such/folder"));
  EXPECT_TRUE(log.has(5, "Misc", "Stat failed on /no/such/folder: No such file or directory\n"));
}

TEST(Slashes, CollapseWithThePredicate) {
  std::string path = "//a///b/c//";
  path.erase(std::unique(path.begin(), path.end(), miscStripSlashes), path.end());
  EXPECT_EQ(path, "/a/b/c/");
  EXPECT_FALSE(miscStripSlashes('/', 'a'));
  EXPECT_FALSE(miscStripSlashes('a', '/'));
}

}  // namespace

namespace {

std::atomic<pid_t>* gHandledIn;

void noteWhoHandles(int) {
  *gHandledIn = getpid();
}

}  // namespace

TEST(LaunchedCommand, ASignalToAChildThatHasJustBeenMadeNeverRunsAHandlerOfItsParent) {
  // Shared, so that a handler that runs in the child is seen here.
  void* shared =
      mmap(nullptr, sizeof *gHandledIn, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  gHandledIn = new (shared) std::atomic<pid_t>(0);
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = noteWhoHandles;
  ASSERT_EQ(sigaction(SIGTERM, &action, &before), 0);
  for (int i = 0; i < 300; ++i) {
    const int pid = miscLaunchCmdNoWait({"sleep", "60"}, "");
    ASSERT_GT(pid, 0);
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "run " << i;
  }
  EXPECT_EQ(gHandledIn->load(), 0);
  sigaction(SIGTERM, &before, nullptr);
  munmap(shared, sizeof *gHandledIn);
}
