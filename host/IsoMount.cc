#include "host/IsoMount.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <poll.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "frame/ChildProcess.h"
#include "frame/Log.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"
#include "host/ProgramRun.h"

static constexpr const char* kLogSource = "IsoMount";

namespace kxhost {
namespace {

namespace fs = std::filesystem;

constexpr const char* kChrootMountFolder = "/mnt/xcode-iso";
constexpr int kLoopAttempts = 8;
// Serves UDF, which no program of the system does.
constexpr const char* kUdfServer = "/usr/local/medialibrary/bin/udfserve";
constexpr std::chrono::seconds kMountLimit{20};
constexpr std::chrono::milliseconds kServerGrace{300};
constexpr unsigned long kMountFlags = MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC;

struct DiscFileSystem {
  const char* type;
  const char* options;
};
// Discs carry UDF and, mostly, ISO 9660 beside it; without "map=off" the latter shows its
// names in lower case.
constexpr std::array kDiscFileSystems = {DiscFileSystem{"udf", ""},
                                         DiscFileSystem{"iso9660", "map=off"}};

struct LoopDevice {
  UniqueFd fd;  // to be held until it is mounted: it frees itself with its last user
  std::string path;
};

// A read-only loop device over an image; invalid when there is none to be had.
LoopDevice attachLoop(const std::string& iso) {
  const UniqueFd image(open(iso.c_str(), O_RDONLY | O_CLOEXEC));
  const UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!image || !control) return {};
  for (int attempt = 0; attempt < kLoopAttempts; ++attempt) {
    const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0) return {};
    LoopDevice loop;
    loop.path = "/dev/loop" + std::to_string(number);
    loop.fd.reset(open(loop.path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!loop.fd) return {};
    loop_config config = {};
    config.fd = static_cast<__u32>(image.get());
    config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
    if (ioctl(loop.fd.get(), LOOP_CONFIGURE, &config) == 0) return loop;
    if (errno != EBUSY) return {};  // busy: somebody else took that number
  }
  return {};
}

bool mountByKernel(const std::string& iso, const std::string& mountPoint) {
  const LoopDevice loop = attachLoop(iso);
  if (!loop.fd) return false;
  for (const DiscFileSystem& system : kDiscFileSystems) {
    if (mount(loop.path.c_str(), mountPoint.c_str(), system.type, kMountFlags, system.options) == 0)
      return true;
  }
  return false;
}

// The name of a mount point as the kernel's table writes it.
std::string inMountTable(const std::string& path) {
  std::string text;
  for (const char c : path) {
    char escaped[5];
    snprintf(escaped, sizeof escaped, "\\%03o", static_cast<unsigned char>(c));
    text += strchr(" \t\n\\", c) != nullptr ? escaped : std::string(1, c);
  }
  return text;
}

// Asks nothing of the mounted file system, which may not answer yet, or ever.
bool isMountPoint(const std::string& path) {
  const std::string wanted = inMountTable(path);
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5; ++i) fields >> field;
    if (field == wanted) return true;
  }
  return false;
}

// False when the server ended, took too long, or the mount is no longer wanted.
bool waitForMount(ChildProcess& server, const std::string& mountPoint) {
  const auto deadline = std::chrono::steady_clock::now() + kMountLimit;
  const UniqueFd changes(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  for (;;) {
    if (server.poll() || StopSignal::isSet()) return false;
    if (isMountPoint(mountPoint)) return true;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    std::array<pollfd, 3> events = {
        {{changes.get(), POLLPRI, 0}, {server.pidFd(), POLLIN, 0}, {StopSignal::fd(), POLLIN, 0}}};
    poll(events.data(), events.size(), static_cast<int>(left.count()));
  }
}

// The servers of what is mounted by FUSE, by mount point. They are children of this process,
// so that they end with it.
class FuseServers {
 public:
  void add(const std::string& mountPoint, ChildProcess server) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_servers[mountPoint] = std::move(server);
  }
  ChildProcess take(const std::string& mountPoint) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto server = m_servers.find(mountPoint);
    if (server == m_servers.end()) return {};
    ChildProcess taken = std::move(server->second);
    m_servers.erase(server);
    return taken;
  }

 private:
  std::mutex m_mutex;
  std::map<std::string, ChildProcess> m_servers;
};

FuseServers& fuseServers() {
  static auto* const servers = new FuseServers;  // outlives every thread that mounts
  return *servers;
}

bool serveByFuse(const std::vector<std::string>& argv, const std::string& mountPoint) {
  // What it says is of no use, and a damaged image makes it say that without end.
  ChildProcess::Options options;
  options.captureStdout = true;
  options.stderrFile = "/dev/null";
  ChildProcess server = ChildProcess::spawn(argv, options);
  if (!server.valid()) return false;
  if (waitForMount(server, mountPoint)) {
    fuseServers().add(mountPoint, std::move(server));
    return true;
  }
  server.terminate(kServerGrace);
  umount2(mountPoint.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH);
  return false;
}

// In the order that the kernel tries its file systems in.
bool mountByFuse(const std::string& iso, const std::string& mountPoint) {
  const std::string options = "ro,nosuid,nodev";
  return serveByFuse({miscSystemPath(kUdfServer), iso, mountPoint, "-f", "-o", options},
                     mountPoint) ||
         (!StopSignal::isSet() &&
          serveByFuse({"fuseiso", "-n", iso, mountPoint, "-f", "-o", options}, mountPoint));
}

// Start of a process in clock ticks since the machine started; 0 when there is none.
long long startTicks(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return 0;
  // The program's name may hold blanks and parentheses, so fields are counted behind it.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string field;
  for (int number = 3; number <= 22; ++number) fields >> field;
  return myatoll(field.c_str());
}

// A new folder "PID_START_XXXXXX", so that a later process can tell whose it is, even when the
// number has gone to another process.
std::string makeMountPoint(const std::string& folder) {
  if (mymkdir(folder.c_str(), 0755) != 0) return {};
  std::string path = folder + "/" + std::to_string(getpid()) + "_" +
                     std::to_string(startTicks(getpid())) + "_XXXXXX";
  if (mkdtemp(path.data()) == nullptr) return {};
  std::error_code failed;
  const std::string real = fs::canonical(path, failed).string();
  return failed ? path : real;
}

// Mounts an image on a new folder below @p folder. @return the folder, empty on failure
std::string mountBelow(const std::string& folder, const std::string& iso) {
  struct stat info = {};
  if (stat(iso.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  std::string mountPoint = makeMountPoint(folder);
  if (mountPoint.empty()) return {};
  if (mountByKernel(iso, mountPoint) || mountByFuse(iso, mountPoint)) return mountPoint;
  rmdir(mountPoint.c_str());
  return {};
}

// True also when nothing is mounted there any more, as after the end of a FUSE server.
bool unmount(const std::string& mountPoint) {
  if (umount2(mountPoint.c_str(), UMOUNT_NOFOLLOW) == 0 || errno == EINVAL) return true;
  if (errno == EBUSY) return umount2(mountPoint.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH) == 0;
  return errno == EPERM && succeeded(runProgram({"fusermount", "-u", "-z", mountPoint}));
}

// The path as makeMountPoint() gave it. The mount itself is not asked: it may not answer.
std::string resolved(const std::string& mountPoint) {
  std::error_code failed;
  const fs::path path(mountPoint);
  const fs::path folder = fs::canonical(path.parent_path(), failed);
  return failed ? mountPoint : (folder / path.filename()).string();
}

bool releaseMount(const std::string& mountPoint) {
  ChildProcess server = fuseServers().take(mountPoint);
  const bool released = unmount(mountPoint);
  if (server.valid()) server.terminate(kServerGrace);
  return rmdir(mountPoint.c_str()) == 0 && released;
}

int copyPath(const std::string& text, char* buf, int size) {
  if (buf == nullptr || size <= 0 || text.size() >= static_cast<size_t>(size)) return 1;
  memcpy(buf, text.c_str(), text.size() + 1);
  return 0;
}

// True for a name of makeMountPoint() whose process has ended.
bool isStale(const std::string& name) {
  int pid = 0;
  long long start = 0;
  char random[7] = {};
  if (sscanf(name.c_str(), "%9d_%18lld_%6s", &pid, &start, random) != 3) return false;
  return strlen(random) == 6 && startTicks(pid) != start;
}

// Names are compared in any letter case: ISO 9660 knows capitals only, and is shown in small
// letters.
std::string entryOf(const std::string& folder, const char* name) {
  std::error_code failed;
  for (const auto& entry : fs::directory_iterator(folder, failed)) {
    const std::string found = entry.path().filename().string();
    if (strcasecmp(found.c_str(), name) == 0) return entry.path().string();
  }
  return {};
}

bool holdsFile(const std::string& folder, const char* below, const char* name) {
  const std::string path = entryOf(folder, below);
  return !path.empty() && !entryOf(path, name).empty();
}

bool holdsDisc(const std::string& folder) {
  return holdsFile(folder, "VIDEO_TS", "VIDEO_TS.IFO") || holdsFile(folder, "BDMV", "index.bdmv");
}

// Some images carry the disc in one folder of its own.
std::string findDiscFolder(const std::string& root) {
  if (holdsDisc(root)) return root;
  std::error_code failed;
  for (const auto& entry : fs::directory_iterator(root, failed)) {
    std::string folder = convertFolderPath(entry.path().string());
    if (entry.is_directory(failed) && !entry.is_symlink(failed) && holdsDisc(folder)) return folder;
  }
  return {};
}

// Everywhere that images are mounted: on the host and in the codec add-on's environment.
std::vector<std::string> mountFolders() {
  std::vector<std::string> folders = {isoMountFolder()};
  GstAgentPaths addOn;
  if (MyUtil_getGstTranscodeAgentPaths(addOn) == 0)
    folders.push_back(addOn.chrootPath + kChrootMountFolder);
  return folders;
}

}  // namespace

std::string isoMountFolder() {
  return miscSystemPath("/run/xcode/iso");
}

int releaseStaleIsoMounts() {
  int released = 0;
  std::error_code failed;
  std::vector<std::string> stale;
  std::vector<fs::directory_entry> entries;
  for (const std::string& folder : mountFolders())
    for (const auto& entry : fs::directory_iterator(folder, failed)) entries.push_back(entry);
  for (const auto& entry : entries) {
    if (isStale(entry.path().filename().string())) stale.push_back(entry.path().string());
  }
  for (const std::string& mountPoint : stale) {
    if (releaseMount(mountPoint)) ++released;
    KX_LOG("released %s\n", mountPoint.c_str());
  }
  return released;
}

}  // namespace kxhost

int mountIso(const char* iso, char* mountPoint, int size) {
  if (iso == nullptr) return 1;
  const std::string mounted = kxhost::mountBelow(kxhost::isoMountFolder(), iso);
  if (mounted.empty()) return 1;
  if (kxhost::copyPath(mounted, mountPoint, size) == 0) return 0;
  kxhost::releaseMount(mounted);
  return 1;
}

int umountIso(const char* mountPoint) {
  if (mountPoint == nullptr || *mountPoint == '\0') return 1;
  return kxhost::releaseMount(mountPoint) ? 0 : 1;
}

int chrootMountIso(const char* chrootPath, const char* iso, char* pathInChroot, int size) {
  if (chrootPath == nullptr || *chrootPath == '\0' || iso == nullptr) return 1;
  const std::string folder = kxhost::kChrootMountFolder;
  const std::string mounted = kxhost::mountBelow(chrootPath + folder, iso);
  if (mounted.empty()) return 1;
  // The environment may be named through a link: only the last name is the same on both sides.
  const std::string inChroot = folder + mounted.substr(mounted.rfind('/'));
  if (kxhost::copyPath(inChroot, pathInChroot, size) == 0) return 0;
  kxhost::releaseMount(mounted);
  return 1;
}

int chrootUmountIso(const char* chrootPath, const char* pathInChroot) {
  if (chrootPath == nullptr || pathInChroot == nullptr || *pathInChroot == '\0') return 1;
  return kxhost::releaseMount(kxhost::resolved(std::string(chrootPath) + pathInChroot)) ? 0 : 1;
}

int parseMountedFolder_v2(const char* mountPoint, char* folder, int size) {
  if (mountPoint == nullptr || *mountPoint == '\0') return 1;
  std::string path = mountPoint;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::string root = convertFolderPath(path);
  const std::string disc = kxhost::findDiscFolder(root);
  const int copied = kxhost::copyPath(disc.empty() ? root : disc, folder, size);
  return copied != 0 || disc.empty() ? 1 : 0;
}
