// mymkdir() and myremove().

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "KxHostPlatform.h"
#include "frame/UniqueFd.h"

namespace {

bool makeFolder(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) == 0) return true;
  const int savedErrno = errno;
  struct stat info = {};
  const bool isFolder = stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
  errno = savedErrno;
  return isFolder;
}

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;

// Removes one tree. It holds two descriptors whatever the depth, because a user can nest
// folders deeper than a process may open files; on its way up it checks that ".." is still
// the folder it came from, because a user can also move folders meanwhile.
class TreeRemover {
 public:
  // @p parent is the folder that holds the tree's root entry.
  TreeRemover(UniqueFd parent, dev_t device) : m_device(device), m_current(std::move(parent)) {
    m_levels.push_back(Level{});
    if (struct stat info = {}; fstat(m_current.get(), &info) == 0) identify(info);
  }

  bool run(const std::string& root) {
    if (!enter(root)) return m_failed == 0;
    while (m_levels.size() > 1) {
      const std::string child = emptyOutUntilFolder();
      if (!child.empty() && enter(child)) continue;
      if (child.empty() && !leave()) return false;
    }
    return m_failed == 0;
  }

 private:
  struct Level {
    dev_t device = 0;
    ino_t inode = 0;
    std::string name;            // in its parent
    std::set<std::string> kept;  // entries that could not be removed
  };

  void identify(const struct stat& info) {
    m_levels.back().device = info.st_dev;
    m_levels.back().inode = info.st_ino;
  }

  void giveUpOn(const std::string& name) {
    if (m_failed == 0) m_failed = errno == 0 ? EIO : errno;
    m_levels.back().kept.insert(name);
  }

  // Goes down into a folder of the current one; removes it when it is no folder.
  bool enter(const std::string& name) {
    UniqueFd next(
        openat(m_current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next && errno == ENOENT) return false;
    if (!next) {
      if (unlinkat(m_current.get(), name.c_str(), 0) != 0) giveUpOn(name);
      return false;
    }
    struct stat info = {};
    if (fstat(next.get(), &info) != 0 || info.st_dev != m_device) {
      errno = EXDEV;  // something is mounted here: not part of what is to be removed
      giveUpOn(name);
      return false;
    }
    m_current = std::move(next);
    m_levels.push_back(Level{info.st_dev, info.st_ino, name, {}});
    return true;
  }

  // Removes the entries of the current folder up to the first one that is a folder itself.
  std::string emptyOutUntilFolder() {
    const int copy = openat(m_current.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const DirStream stream(copy < 0 ? nullptr : fdopendir(copy));
    if (!stream) {
      if (copy >= 0) close(copy);
      return {};
    }
    while (const dirent* entry = readdir(stream.get())) {
      std::string name = entry->d_name;
      if (name == "." || name == ".." || m_levels.back().kept.count(name) != 0) continue;
      if (entry->d_type == DT_DIR) return name;
      if (unlinkat(m_current.get(), name.c_str(), 0) == 0 || errno == ENOENT) continue;
      if (errno == EISDIR || errno == EPERM) {
        struct stat info = {};
        const bool folder =
            fstatat(m_current.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(info.st_mode);
        if (folder) return name;
        errno = EPERM;
      }
      giveUpOn(name);
    }
    return {};
  }

  // Goes up and removes the folder it leaves.
  bool leave() {
    UniqueFd up(openat(m_current.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string name = m_levels.back().name;
    m_levels.pop_back();
    struct stat info = {};
    const bool sameParent = up && fstat(up.get(), &info) == 0 &&
                            info.st_dev == m_levels.back().device &&
                            info.st_ino == m_levels.back().inode;
    if (!sameParent) return false;
    m_current = std::move(up);
    const bool removed =
        unlinkat(m_current.get(), name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
    if (!removed) giveUpOn(name);
    return true;
  }

  dev_t m_device;
  UniqueFd m_current;
  std::vector<Level> m_levels;
  int m_failed = 0;
};

}  // namespace

int mymkdir(const char* path, int mode) {
  if (path == nullptr || *path == '\0') return 1;
  const std::string whole = path;
  const auto wanted = static_cast<mode_t>(mode);
  for (size_t slash = whole.find('/', 1); slash != std::string::npos;
       slash = whole.find('/', slash + 1)) {
    if (!makeFolder(whole.substr(0, slash), wanted | 0700)) return 1;
  }
  return makeFolder(whole, wanted) ? 0 : 1;
}

int myremove(const char* path) {
  std::string whole = path == nullptr ? "" : path;
  // A trailing slash would follow a link.
  while (whole.size() > 1 && whole.back() == '/') whole.pop_back();
  const size_t slash = whole.rfind('/');
  const std::string name = slash == std::string::npos ? whole : whole.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") {
    errno = EINVAL;
    return 1;
  }
  const std::string folder = slash == std::string::npos ? "." : whole.substr(0, slash + 1);
  UniqueFd parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent) return errno == ENOENT ? 0 : 1;
  struct stat info = {};
  if (fstatat(parent.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? 0 : 1;
  return TreeRemover(std::move(parent), info.st_dev).run(name) ? 0 : 1;
}
