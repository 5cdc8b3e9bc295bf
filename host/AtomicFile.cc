#include "host/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "frame/UniqueFd.h"

namespace kxhost {
namespace {

// Removes the temporary file unless it has been renamed into place; errno survives.
class TemporaryName {
 public:
  explicit TemporaryName(std::string path) : m_path(std::move(path)) {}
  TemporaryName(const TemporaryName&) = delete;
  TemporaryName& operator=(const TemporaryName&) = delete;
  ~TemporaryName() {
    if (m_path.empty()) return;
    const int savedErrno = errno;
    unlink(m_path.c_str());
    errno = savedErrno;
  }
  bool renameTo(const std::string& target) {
    if (rename(m_path.c_str(), target.c_str()) != 0) return false;
    m_path.clear();
    return true;
  }

 private:
  std::string m_path;
};

bool writeAll(int fd, const std::string& content) {
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t count = write(fd, content.data() + done, content.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

bool applyIdentity(int fd, const FileIdentity& identity) {
  struct stat now = {};
  if (fstat(fd, &now) != 0) return false;
  const uid_t owner = identity.owner.value_or(now.st_uid);
  const gid_t group = identity.group.value_or(now.st_gid);
  const bool differs = owner != now.st_uid || group != now.st_gid;
  if (differs && fchown(fd, owner, group) != 0) return false;
  return fchmod(fd, identity.mode) == 0;
}

// A renamed file is only durable once its folder is; failing that is no reason to undo it.
void syncFolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  std::string folder = ".";
  if (slash != std::string::npos) folder = path.substr(0, slash + 1);
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) fsync(fd.get());
}

}  // namespace

std::optional<std::string> readWholeFile(const std::string& path, size_t limit) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info = {};
  if (!fd || fstat(fd.get(), &info) != 0) return std::nullopt;
  if (!S_ISREG(info.st_mode)) {
    errno = EINVAL;
    return std::nullopt;
  }
  std::string content;
  char buffer[16384];
  ssize_t count = 0;
  while ((count = read(fd.get(), buffer, sizeof buffer)) > 0) {
    content.append(buffer, static_cast<size_t>(count));
    if (content.size() > limit) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
  if (count < 0) return std::nullopt;
  return content;
}

bool replaceFile(const std::string& path, const std::string& content,
                 const FileIdentity& identity) {
  std::string name = path + ".XXXXXX";
  UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
  if (!fd) return false;
  TemporaryName temporary(name);
  if (!applyIdentity(fd.get(), identity) || !writeAll(fd.get(), content) || fsync(fd.get()) != 0)
    return false;
  if (close(fd.release()) != 0 || !temporary.renameTo(path)) return false;
  syncFolderOf(path);
  return true;
}

}  // namespace kxhost
