// The encoder as the service calls it: adapts the arguments and becomes the installed ffmpeg,
// so that the process number and every signal stay those of the encoder.

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "frame/UniqueFd.h"
#include "tools/FfmpegArguments.h"
#include "tools/PackedSound.h"

namespace {

constexpr size_t kMaxListBytes = 64 << 20;

std::string readList(const std::string& path) {
  std::string text;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  char buffer[16384];
  ssize_t count = 0;
  while (fd >= 0 && text.size() < kMaxListBytes && (count = read(fd, buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<size_t>(count));
  if (fd >= 0) close(fd);
  return text;
}

// A file without a name that the encoder inherits: nothing is left to be removed after it.
int memoryFileOf(const std::string& text) {
  const int fd = memfd_create("concat-list", 0);
  size_t done = 0;
  while (fd >= 0 && done < text.size()) {
    const ssize_t count = write(fd, text.data() + done, text.size() - done);
    if (count <= 0) return -1;
    done += static_cast<size_t>(count);
  }
  return fd;
}

std::string convertList(const std::string& path) {
  const std::string text = readList(path);
  if (!kxtools::needsAdapting(text)) return path;
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const int fd = memoryFileOf(kxtools::adaptConcatList(text, folder));
  return fd < 0 ? path : "/proc/self/fd/" + std::to_string(fd);
}

bool isThisProgram(const std::string& path) {
  struct stat self = {};
  struct stat other = {};
  return stat("/proc/self/exe", &self) == 0 && stat(path.c_str(), &other) == 0 &&
         self.st_dev == other.st_dev && self.st_ino == other.st_ino;
}

// Where the installed encoder is: as the environment says, else the system's.
std::string findEncoder() {
  const char* chosen = getenv("KX_FFMPEG");
  if (chosen != nullptr && *chosen == '/') return chosen;
  const char* search = getenv("PATH");
  std::string folders = std::string("/usr/bin:") + (search == nullptr ? "/bin" : search) + ":";
  for (size_t end = folders.find(':'); end != std::string::npos; end = folders.find(':')) {
    std::string path = folders.substr(0, end) + "/ffmpeg";
    folders.erase(0, end + 1);
    if (path.front() == '/' && access(path.c_str(), X_OK) == 0 && !isThisProgram(path)) return path;
  }
  return {};
}

// The encoder gets no network, where that is allowed, and no new rights. The death signal is
// armed anew afterwards, because a change of rights clears it; a parent that died meanwhile
// could not send it any more.
bool confine() {
  const pid_t parent = getppid();
  int deathSignal = 0;
  prctl(PR_GET_PDEATHSIG, &deathSignal);
  static_cast<void>(unshare(CLONE_NEWNET));
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  if (deathSignal == 0) return true;
  return prctl(PR_SET_PDEATHSIG, deathSignal) == 0 && getppid() == parent;
}

[[noreturn]] void become(const std::string& encoder, const kxtools::Words& serviceWords) {
  const kxtools::Words words = kxtools::adaptArguments(serviceWords, convertList);
  std::vector<char*> pointers = {const_cast<char*>(encoder.c_str())};
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  execv(encoder.c_str(), pointers.data());
  fprintf(stderr, "%s: %s\n", encoder.c_str(), strerror(errno));
  _exit(127);
}

// Starts the encoder a second time, for the sound alone. It ends with this process, and at
// the latest when nobody reads what it writes.
// @return the descriptor to read from, which the encoder inherits; -1 on failure
int startUnpacking(const std::string& encoder, const kxtools::Words& words) {
  int ends[2];
  if (pipe(ends) != 0) return -1;
  UniqueFd readEnd(ends[0]);
  const UniqueFd writeEnd(ends[1]);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child > 0) return readEnd.release();
  readEnd.reset();
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent || dup2(writeEnd.get(), STDOUT_FILENO) < 0) _exit(127);
  if (writeEnd.get() != STDOUT_FILENO) close(writeEnd.get());
  become(encoder, kxtools::unpackingWords(words));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string encoder = findEncoder();
  if (encoder.empty()) {
    fprintf(stderr, "ffmpeg is not installed\n");
    return 127;
  }
  unsetenv("FFREPORT");  // would write files wherever it says
  setenv("AV_LOG_FORCE_NOCOLOR", "1", 1);
  if (!confine()) return 1;
  const kxtools::Words words(argv + 1, argv + argc);
  if (!kxtools::asksForUnpacking(words)) become(encoder, words);
  const int sound = startUnpacking(encoder, words);
  if (sound >= 0) become(encoder, kxtools::withUnpackedSound(words, sound));
  fprintf(stderr, "the sound cannot be unpacked: %s\n", strerror(errno));
  return 1;
}
