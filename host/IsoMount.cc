#include "host/IsoMount.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "frame/Log.h"
#include "frame/UniqueFd.h"
#include "host/ProgramRun.h"

static constexpr const char* kLogSource = "IsoMount";

namespace kxhost {
namespace {

namespace fs = std::filesystem;

constexpr const char* kChrootMountFolder = "/mnt/xcode-iso";
constexpr int kLoopAttempts = 8;
constexpr int kMaxMirrorDepth = 8;
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

bool mountByFuse(const std::string& iso, const std::string& mountPoint) {
  return succeeded(runProgram({"fuseiso", "-n", iso, mountPoint, "-o", "ro,nosuid,nodev"}));
}

// The FUSE file system shows plain ISO 9660 names in lower case, but the files of a DVD are
// looked for in upper case. A folder of links beside the mount point puts that right.
std::string namesFolder(const std::string& mountPoint) {
  return mountPoint + ".names";
}

std::string upperCase(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(toupper(c)); });
  return name;
}

bool holdsLowerCaseDisc(const std::string& folder) {
  return access((convertFolderPath(folder) + "video_ts/video_ts.ifo").c_str(), F_OK) == 0;
}

// Mirrors a tree as folders and relative links, so that it also holds in a chroot.
void mirrorInUpperCase(const fs::path& from, const fs::path& to, int depth) {
  std::error_code failed;
  if (depth > kMaxMirrorDepth || !fs::create_directory(to, failed)) return;
  for (const auto& entry : fs::directory_iterator(from, failed)) {
    const fs::path name = upperCase(entry.path().filename().string());
    if (entry.is_directory(failed)) {
      mirrorInUpperCase(entry.path(), to / name, depth + 1);
    } else {
      fs::create_symlink(entry.path().lexically_relative(to), to / name, failed);
    }
  }
}

void correctNames(const std::string& mountPoint) {
  std::error_code failed;
  bool lowerCase = holdsLowerCaseDisc(mountPoint);
  for (const auto& entry : fs::directory_iterator(mountPoint, failed))
    lowerCase = lowerCase || holdsLowerCaseDisc(entry.path().string());
  if (lowerCase) mirrorInUpperCase(mountPoint, namesFolder(mountPoint), 0);
}

// A new folder "PID_XXXXXX", so that a later process can tell whose it is.
std::string makeMountPoint(const std::string& folder) {
  if (mymkdir(folder.c_str(), 0755) != 0) return {};
  std::string path = folder + "/" + std::to_string(getpid()) + "_XXXXXX";
  return mkdtemp(path.data()) == nullptr ? std::string() : path;
}

// Mounts an image on a new folder below @p folder. @return the folder, empty on failure
std::string mountBelow(const std::string& folder, const std::string& iso) {
  struct stat info = {};
  if (stat(iso.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  std::string mountPoint = makeMountPoint(folder);
  if (mountPoint.empty()) return {};
  if (mountByKernel(iso, mountPoint) || mountByFuse(iso, mountPoint)) {
    correctNames(mountPoint);
    return mountPoint;
  }
  rmdir(mountPoint.c_str());
  return {};
}

bool releaseMount(const std::string& mountPoint) {
  myremove(namesFolder(mountPoint).c_str());
  bool released = umount2(mountPoint.c_str(), UMOUNT_NOFOLLOW) == 0;
  if (!released && errno == EBUSY)
    released = umount2(mountPoint.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH) == 0;
  if (!released && errno == EPERM)
    released = succeeded(runProgram({"fusermount", "-u", "-z", mountPoint}));
  return rmdir(mountPoint.c_str()) == 0 && released;
}

int copyPath(const std::string& text, char* buf, int size) {
  if (buf == nullptr || size <= 0 || text.size() >= static_cast<size_t>(size)) return 1;
  memcpy(buf, text.c_str(), text.size() + 1);
  return 0;
}

// Process that made a mount point, by its name; 0 for a name that is not one.
pid_t ownerOf(const std::string& name) {
  const size_t end = name.find('_');
  return end == std::string::npos ? 0 : static_cast<pid_t>(myatoll(name.substr(0, end).c_str()));
}

bool holdsDisc(const std::string& folder) {
  return access((folder + "VIDEO_TS/VIDEO_TS.IFO").c_str(), F_OK) == 0 ||
         access((folder + "BDMV/index.bdmv").c_str(), F_OK) == 0;
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
    const pid_t owner = ownerOf(entry.path().filename().string());
    const bool gone = owner > 0 && kill(owner, 0) != 0 && errno == ESRCH;
    if (gone && entry.path().extension() != ".names") stale.push_back(entry.path().string());
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
  const std::string mounted =
      kxhost::mountBelow(std::string(chrootPath) + kxhost::kChrootMountFolder, iso);
  if (mounted.empty()) return 1;
  if (kxhost::copyPath(mounted.substr(strlen(chrootPath)), pathInChroot, size) == 0) return 0;
  kxhost::releaseMount(mounted);
  return 1;
}

int chrootUmountIso(const char* chrootPath, const char* pathInChroot) {
  if (chrootPath == nullptr || pathInChroot == nullptr || *pathInChroot == '\0') return 1;
  return kxhost::releaseMount(std::string(chrootPath) + pathInChroot) ? 0 : 1;
}

int parseMountedFolder_v2(const char* mountPoint, char* folder, int size) {
  if (mountPoint == nullptr || *mountPoint == '\0') return 1;
  std::string path = mountPoint;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::error_code failed;
  const bool corrected = std::filesystem::is_directory(kxhost::namesFolder(path), failed);
  const std::string root = convertFolderPath(corrected ? kxhost::namesFolder(path) : path);
  const std::string disc = kxhost::findDiscFolder(root);
  const int copied = kxhost::copyPath(disc.empty() ? root : disc, folder, size);
  return copied != 0 || disc.empty() ? 1 : 0;
}
