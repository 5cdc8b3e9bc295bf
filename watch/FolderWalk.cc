#include "watch/FolderWalk.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "Misc.h"

namespace {

struct CloseDir {
  void operator()(DIR* dir) const { closedir(dir); }
};
using Directory = std::unique_ptr<DIR, CloseDir>;

// A final "/" would make the call follow a link after all. Only the top may be one.
Directory openFolder(const std::string& folder, bool isTop) {
  const int follow = isTop ? 0 : O_NOFOLLOW;
  const std::string path = folder.size() > 1 ? folder.substr(0, folder.size() - 1) : folder;
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow);
  if (fd < 0) return nullptr;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) close(fd);
  return Directory(dir);
}

// Reads one folder: its files go to the visitor, its sub-folders are returned.
std::vector<std::string> readFolder(DIR* dir, const std::string& folder,
                                    const FolderWalk::Visitor& visitor) {
  std::vector<std::string> subFolders;
  while (const dirent* entry = readdir(dir)) {
    if (visitor.stopped()) break;
    const std::string name = entry->d_name;
    if (!isValidDirName(name)) continue;
    unsigned char type = entry->d_type;
    struct stat info {};
    bool examined = false;
    const auto examine = [&] {
      examined = fstatat(dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0;
      return examined;
    };
    if (type == DT_UNKNOWN && examine())
      type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_UNKNOWN;
    if (type == DT_DIR) {
      subFolders.push_back(folder + name + "/");
    } else if (type == DT_REG && visitor.wanted(name)) {
      if (examined || examine()) visitor.file(folder, name, info);
    }
  }
  return subFolders;
}

}  // namespace

bool FolderWalk::walk(const std::string& top, const Visitor& visitor) {
  std::vector<std::string> pending = {convertFolderPath(top)};
  bool isTop = true;
  while (!pending.empty()) {
    if (visitor.stopped()) return true;
    const std::string folder = std::move(pending.back());
    pending.pop_back();
    const bool entered = visitor.enter(folder);
    if (!entered && isTop) return true;
    if (!entered) continue;
    Directory dir = openFolder(folder, isTop);
    if (!dir) {
      if (isTop) return false;
      visitor.unreadable(folder);
      continue;
    }
    isTop = false;
    std::vector<std::string> subFolders = readFolder(dir.get(), folder, visitor);
    // The last one pushed is walked first: keep the order of the folder.
    std::move(subFolders.rbegin(), subFolders.rend(), std::back_inserter(pending));
  }
  return true;
}
