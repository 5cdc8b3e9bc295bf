#include "engines/DiscMount.h"

#include <sys/mount.h>

#include <climits>
#include <utility>

#include "Misc.h"
#include "engines/EngineNote.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace engines {
namespace {

constexpr const char* kAddOnName = "Ampora";

std::string joinPath(std::string folder, const std::string& path) {
  if (path.starts_with("/") && folder.ends_with("/")) folder.pop_back();
  return path.starts_with("/") ? folder + path : convertFolderPath(folder) + path;
}

// Folder of the disc's files; the mount itself for an image without a disc structure, which
// is then probed as the folder that it is.
std::string discFolder(const std::string& mountPoint) {
  char folder[PATH_MAX] = "";
  const bool found = parseMountedFolder_v2(mountPoint.c_str(), folder, sizeof folder) == 0;
  return convertFolderPath(found && folder[0] != '\0' ? folder : mountPoint);
}

}  // namespace

DiscMount::~DiscMount() {
  release();
}

int DiscMount::mount(const std::string& image) {
  if (mountOnHost(image) != 0) return 1;
  GstAgentPaths paths;
  if (MyUtil_getGstTranscodeAgentPaths(paths) != 0) paths.chrootPath.clear();
  m_chrootPath = paths.chrootPath;
  KX_LOG_AS("init", "chrootPath:%s", m_chrootPath.c_str());
  if (!m_chrootPath.empty()) return mountInAddOn(image);
  KX_LOG_AS("init", "do not install %s, do not need to chroot mount\n", kAddOnName);
  m_addOnFolder = m_hostFolder;
  return 0;
}

int DiscMount::mountOnHost(const std::string& image) {
  char path[PATH_MAX] = "";
  if (mountIso(image.c_str(), path, sizeof path) != 0) {
    KX_LOG_AS("init", "mountIso %s fail\n", image.c_str());
    return 1;
  }
  m_mountPoint = path;
  if (!noteMount(m_mountPoint)) return 1;
  m_hostFolder = discFolder(m_mountPoint);
  return 0;
}

int DiscMount::mountInAddOn(const std::string& image) {
  char path[PATH_MAX] = "";
  if (chrootMountIso(m_chrootPath.c_str(), image.c_str(), path, sizeof path) != 0) {
    const size_t name = image.rfind('/') + 1;
    KX_LOG_AS("init", "chroot to %s and mount iso %s%s fail\n", m_chrootPath.c_str(),
              image.substr(0, name).c_str(), image.substr(name).c_str());
    return 1;
  }
  m_chrootMount = path;
  const std::string onHost = joinPath(m_chrootPath, m_chrootMount);
  if (!noteMount(onHost)) return 1;
  m_addOnFolder = discFolder(onHost);
  return 0;
}

bool DiscMount::noteMount(const std::string& onHost) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_mounts.push_back(onHost);
  return !m_isAbandoned;
}

void DiscMount::abandon() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_isAbandoned = true;
  // Ends the connection to a FUSE server; whether it is unmounted too does not matter here.
  for (const std::string& mount : m_mounts) umount2(mount.c_str(), MNT_FORCE);
}

int DiscMount::release() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_mounts.clear();
  }
  int result = 0;
  const std::string chrootMount = std::exchange(m_chrootMount, "");
  if (!chrootMount.empty() && chrootUmountIso(m_chrootPath.c_str(), chrootMount.c_str()) != 0) {
    KX_LOG_AS("umountIso_", "chroot %s umountIso %s fail\n", m_chrootPath.c_str(),
              chrootMount.c_str());
    result = 1;
  }
  const std::string mountPoint = std::exchange(m_mountPoint, "");
  if (!mountPoint.empty() && umountIso(mountPoint.c_str()) != 0) {
    KX_LOG_AS("umountIso_", "umountIso %s fail\n", mountPoint.c_str());
    result = 1;
  }
  return result;
}

}  // namespace engines
