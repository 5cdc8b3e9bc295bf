#include "Misc.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <array>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <sstream>

#include "frame/ChildSetup.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "Misc";

namespace {

constexpr int kKeyTextSize = 1024;
// Folders that the system makes beside the media; their content is never indexed.
constexpr std::array<const char*, 3> kHiddenNames = {".@__thumb", "@Transcode", "@Recycle"};
constexpr std::array<const char*, 3> kDefaultShares = {"Public", "Multimedia", "Kxmultimedia"};

std::string& systemRoot() {
  static std::string root;
  return root;
}

template <class Number>
std::string streamed(Number value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

std::optional<std::string> readKey(const char* section, const char* key, const char* file) {
  std::array<char, kKeyTextSize> text{};
  if (MyUtil_GetKeyStr(section, key, "", text.data(), kKeyTextSize, miscSystemPath(file).c_str()) ==
      0)
    return std::nullopt;
  return std::string(text.data());
}

std::optional<std::string> resolved(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> text(realpath(path.c_str(), nullptr), &free);
  if (!text) return std::nullopt;
  return std::string(text.get());
}

bool containsHiddenName(const std::string& text) {
  for (const char* hidden : kHiddenNames)
    if (text.find(hidden) != std::string::npos) return true;
  return false;
}

// Passes the result of a lock call through and logs a failure.
int checkLock(int result, const char* func, const char* text) {
  if (result != 0) KX_LOG_ERRNO_AS(func, "%s", text);
  return result;
}

int checkTryLock(int result, const char* func, const char* text) {
  if (result != 0 && errno == EBUSY) return EBUSY;
  return checkLock(result, func, text);
}

}  // namespace

void miscSetSystemRoot(const std::string& root) {
  std::string& stored = systemRoot();
  stored = root;
  while (!stored.empty() && stored.back() == '/') stored.pop_back();
}

std::string miscSystemPath(const char* path) {
  return systemRoot() + path;
}

std::string int_to_str(int value) {
  return streamed(value);
}

std::string double_to_str(double value) {
  return streamed(value);
}

int miscGetKXPKGInfo(std::string section, std::string key, std::string& value) {
  if (section.empty() || key.empty()) return 1;
  const auto text = readKey(section.c_str(), key.c_str(), "/etc/config/kxpkg.conf");
  if (!text) return 1;
  value = *text;
  KX_LOG("%s %s=[%s]\n", section.c_str(), key.c_str(), value.c_str());
  return 0;
}

int miscGetHDDPath(std::string& path) {
  const auto configured = readKey("OPTIONS", "MlsDataDir", "/etc/config/medialibrary.conf");
  if (configured && !configured->empty()) {
    path = *configured;
    return 0;
  }
  for (const char* share : kDefaultShares) {
    const auto target = resolved(miscSystemPath("/share/") + share);
    if (!target) continue;
    const size_t position = target->find(share);
    if (position == std::string::npos) return 1;
    path = target->substr(0, position);
    return 0;
  }
  return 1;
}

int miscGenUniqueFileName(std::string& name) {
  const std::string model = int_to_str(getpid()) + "_" +
                            int_to_str(static_cast<int>(pthread_self())) + "_" +
                            int_to_str(static_cast<int>(time(nullptr))) + "_%%%%%%";
  boost::system::error_code ignored;
  name = boost::filesystem::unique_path(model, ignored).string();
  return 0;
}

void miscPrintCmdVec(std::vector<std::string> cmd) {
  std::string line;
  for (const std::string& word : cmd) {
    if (!line.empty()) line += ' ';
    line += word;
  }
  KX_LOG("cmd=%s\n", line.c_str());
}

int miscMutexInit(pthread_mutex_t& mutex, pthread_mutexattr_t* attr) {
  return checkLock(pthread_mutex_init(&mutex, attr), __func__, "init mutex error");
}

int miscMutexDestroy(pthread_mutex_t& mutex) {
  return checkLock(pthread_mutex_destroy(&mutex), __func__, "destory mutex error");
}

int miscMutexLock(pthread_mutex_t& mutex) {
  return checkLock(pthread_mutex_lock(&mutex), __func__, "mutex lock fail");
}

int miscMutexUnLock(pthread_mutex_t& mutex) {
  return checkLock(pthread_mutex_unlock(&mutex), __func__, "mutex unlock fail");
}

int miscMutexTryLock(pthread_mutex_t& mutex) {
  checkLock(pthread_mutex_trylock(&mutex), __func__, "mutex lock fail");
  // Not the call's value: whoever calls this gets errno, which a success leaves as it was.
  return errno;
}

int miscRWLockInit(pthread_rwlock_t& lock, pthread_rwlockattr_t* attr) {
  return checkLock(pthread_rwlock_init(&lock, attr), __func__, "init rwlock error");
}

int miscRWLockDestroy(pthread_rwlock_t& lock) {
  return checkLock(pthread_rwlock_destroy(&lock), __func__, "destory rwlock error");
}

int miscRWLockRdLock(pthread_rwlock_t& lock) {
  return checkLock(pthread_rwlock_rdlock(&lock), __func__, "rwlock rdlock fail");
}

int miscRWLockWrLock(pthread_rwlock_t& lock) {
  return checkLock(pthread_rwlock_wrlock(&lock), __func__, "rwlock wrlock fail");
}

int miscRWLockTryRdLock(pthread_rwlock_t& lock) {
  return checkTryLock(pthread_rwlock_tryrdlock(&lock), __func__, "rwlock rdlock fail");
}

int miscRWLockTryWrLock(pthread_rwlock_t& lock) {
  return checkTryLock(pthread_rwlock_trywrlock(&lock), __func__, "rwlock wrlock fail");
}

int miscRWLockUnLock(pthread_rwlock_t& lock) {
  return checkLock(pthread_rwlock_unlock(&lock), __func__, "rwlock unlock fail");
}

namespace {

// The child of miscLaunchCmdNoWait: only async-signal-safe calls and the log, which copes with
// being called here. It leaves through _exit, so that no destructor closes its parent's files.
namespace launch {

constexpr const char* kFunc = "miscLaunchCmdNoWait";
constexpr int kSetupFailed = -1;

void dieWithParent(pid_t parent) {
  switch (childsetup::armDeathSignal(parent)) {
  case childsetup::DeathSignal::Armed:
    return;
  case childsetup::DeathSignal::PrctlFailed:
    KX_LOG_AS(kFunc, "Cannot prctl(PR_SET_PDEATHSIG, SIGTERM), errno=%d, strerror=%s\n", errno,
              strerror(errno));
    break;
  case childsetup::DeathSignal::ParentGone:
    break;
  }
  _exit(kSetupFailed);
}

void redirectStandardError(const char* logFile) {
  KX_LOG_AS(kFunc, "log file=%s\n", logFile);
  if (unlink(logFile) != 0 && errno != ENOENT) KX_LOG_AS(kFunc, "remove log: %s fail\n", logFile);
  const int fd = open(logFile, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) {
    KX_LOG_AS(kFunc, "open fd error, errno=%d, errstr=%s\n", errno, strerror(errno));
    _exit(kSetupFailed);
  }
  if (dup2(fd, STDERR_FILENO) < 0) {
    KX_LOG_AS(kFunc, "dup2 error, errno=%d, errstr=%s\n", errno, strerror(errno));
    _exit(kSetupFailed);
  }
  if (fd != STDERR_FILENO) close(fd);
}

[[noreturn]] void becomeProgram(char* const* argv, const char* logFile, pid_t parent) {
  setpgid(0, 0);
  dieWithParent(parent);
  childsetup::resetSignals();
  if (*logFile != '\0') redirectStandardError(logFile);
  execvp(argv[0], argv);
  KX_LOG_AS(kFunc, "end of execvp - shouldn't come here\n");
  _exit(1);
}

std::optional<std::vector<char*>> argvOf(std::vector<std::string>& words) {
  try {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace launch
}  // namespace

int miscLaunchCmdNoWait(std::vector<std::string> cmd, std::string logFile) {
  if (cmd.empty()) {
    KX_LOG("empty cmd vector\n");
    return -1;
  }
  const auto argv = launch::argvOf(cmd);
  if (!argv) {
    KX_LOG("malloc fail");
    return -1;
  }
  miscPrintCmdVec(cmd);
  const pid_t parent = getpid();
  const childsetup::AllSignalsBlocked blocked;
  const pid_t pid = fork();
  if (pid == 0) launch::becomeProgram(argv->data(), logFile.c_str(), parent);
  // Also here, so that the group exists when this returns.
  if (pid > 0) setpgid(pid, pid);
  if (pid < 0) KX_LOG("fork fail\n");
  return pid;
}

int miscAnalysisRet(int status) {
  if (WIFEXITED(status)) {
    KX_LOG("child normal exit, ret=%d\n", WEXITSTATUS(status));
    return WEXITSTATUS(status);
  }
  if (WIFSIGNALED(status)) {
    KX_LOG("child exit by receive signal, signal=%d\n", WTERMSIG(status));
    return WTERMSIG(status);
  }
  KX_LOG("other conidtion\n");
  return 1;
}

int checkSystemReturn(int status) {
  if (status == -1) {
    KX_LOG("system command fork child process failed\n");
    return 1;
  }
  if (!WIFEXITED(status)) {
    KX_LOG("WIFEXITED return false child process terminate not normally\n");
    return 1;
  }
  if (WEXITSTATUS(status) != 0) {
    KX_LOG("command return non zero %d\n", WEXITSTATUS(status));
    return 1;
  }
  return 0;
}

bool miscCompareModTime(std::string a, std::string b) {
  struct stat first {};
  struct stat second {};
  if (stat(a.c_str(), &first) != 0 || stat(b.c_str(), &second) != 0) return false;
  return first.st_mtime == second.st_mtime;
}

int miscSetSameModTime(std::string src, std::string dst) {
  struct stat from {};
  struct stat to {};
  if (stat(src.c_str(), &from) != 0 || stat(dst.c_str(), &to) != 0) return 1;
  utimbuf times{};
  times.actime = from.st_atime;
  times.modtime = from.st_mtime;
  return utime(dst.c_str(), &times) == 0 ? 0 : 1;
}

bool isValidDirName(std::string name) {
  return name != "." && name != ".." && !containsHiddenName(name);
}

bool isValidPath(std::string path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && !containsHiddenName(path);
}

std::string convertFolderPath(std::string path) {
  if (path.empty() || path.back() != '/') path += '/';
  return path;
}

bool isdir(std::string path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) {
    KX_LOG("Stat failed on %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  return S_ISDIR(info.st_mode);
}

bool miscStripSlashes(char a, char b) {
  return a == '/' && b == '/';
}
