#include "watch/FolderFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>

#include "frame/Log.h"
#include "frame/UniqueFd.h"

static constexpr const char* kLogSource = "KxTransFileConfig";

namespace FolderFile {
namespace {

constexpr const char* kFolder = "MEDIAFOLDER";

std::string newName(const std::string& path) {
  return path + ".new";
}

bool isReadable(const std::string& path) {
  return !XMLNode::openFileHelper(path.c_str(), kRoot).isEmpty();
}

bool keepDamaged(const std::string& path) {
  const std::string kept = path + ".damaged." + std::to_string(time(nullptr));
  if (rename(path.c_str(), kept.c_str()) != 0) {
    KX_LOG_LEVEL(2, "folder file %s is damaged and can not be kept as %s, errno=%d, strerror=%s\n",
                 path.c_str(), kept.c_str(), errno, strerror(errno));
    return false;
  }
  KX_LOG_LEVEL(2, "folder file %s is damaged, it is kept as %s\n", path.c_str(), kept.c_str());
  return true;
}

// A file is written under a name of its own, "NAME.XXXXXX", before it is "NAME".
void removeLeftovers(const std::string& path) {
  constexpr size_t kRandom = 6;
  const std::filesystem::path file(path);
  const std::string names[] = {file.filename().string() + ".", newName(file.filename()) + "."};
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(file.parent_path(), ignored)) {
    const std::string name = entry.path().filename();
    for (const std::string& prefix : names) {
      if (name.size() == prefix.size() + kRandom && name.compare(0, prefix.size(), prefix) == 0)
        unlink(entry.path().c_str());
    }
  }
}

// Until then a power failure may undo a change that was answered.
void syncFolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) fsync(fd.get());
}

}  // namespace

bool exists(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0;
}

XMLNode emptyDocument() {
  XMLNode root = XMLNode::createXMLTopNode(kRoot);
  root.addAttribute("VER", "1.0");
  return root;
}

void append(XMLNode& root, const KxTransFileSetting& setting) {
  XMLNode child = root.addChild(kFolder);
  child.addAttribute("PATH", setting.getFilePath().c_str());
  child.addAttribute("TRANSCODETARGET", setting.getTarget().c_str());
  child.addAttribute("OPTION", setting.getOptions().c_str());
}

std::vector<KxTransFileSetting> settingsOf(const XMLNode& root) {
  std::vector<KxTransFileSetting> settings;
  const int count = root.nChildNode(kFolder);
  for (int i = 0; i < count; ++i) {
    const XMLNode child = root.getChildNode(kFolder, i);
    if (child.isEmpty()) continue;
    const char* path = child.getAttribute("PATH");
    const char* target = child.getAttribute("TRANSCODETARGET");
    const char* option = child.getAttribute("OPTION");
    if (path == nullptr || target == nullptr || option == nullptr) continue;
    settings.emplace_back(path, target, option);
  }
  return settings;
}

XMLNode migrated(const std::string& mediaLibraryFile) {
  XMLNode root = emptyDocument();
  const XMLNode library = XMLNode::openFileHelper(mediaLibraryFile.c_str(), "MEDIADB");
  if (library.isEmpty()) return root;
  const int count = library.nChildNode(kFolder);
  for (int i = 0; i < count; ++i) {
    const XMLNode child = library.getChildNode(kFolder, i);
    if (child.isEmpty()) continue;
    const char* path = child.getAttribute("PATH");
    const char* mount = child.getAttribute("MOUNT");
    const char* target = child.getAttribute("TRANSCODETARGET");
    if (path == nullptr || mount == nullptr || target == nullptr) continue;
    append(root, KxTransFileSetting(std::string(mount) + path, target));
  }
  return root;
}

bool recover(const std::string& path) {
  removeLeftovers(path);
  const std::string fresh = newName(path);
  if (isReadable(path)) {
    // Its writer was ended before anybody was told that the new version holds.
    unlink(fresh.c_str());
    return true;
  }
  if (exists(path) && !keepDamaged(path)) return false;
  if (!isReadable(fresh) || rename(fresh.c_str(), path.c_str()) != 0) return false;
  KX_LOG_LEVEL(3, "finish interrupted write of folder file %s\n", path.c_str());
  return true;
}

int write(const std::string& path, const XMLNode& root) {
  return root.writeToFile(path.c_str()) == 0 ? 0 : 1;
}

int replace(const std::string& path, const XMLNode& root) {
  const std::string fresh = newName(path);
  if (write(fresh, root) != 0) return 1;
  if (remove(path.c_str()) != 0)
    KX_LOG_AS("updateTranscodeXml", "Remove %s failed.\n", path.c_str());
  if (rename(fresh.c_str(), path.c_str()) != 0) return 1;
  syncFolderOf(path);
  return 0;
}

}  // namespace FolderFile
