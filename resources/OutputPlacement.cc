#include "resources/OutputPlacement.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <sstream>

#include "Misc.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

constexpr mode_t kFolderMode = 0777;  // cut by the service's umask
constexpr std::array<int, 3> kRotations = {90, 180, 270};

UniqueFd makeFolderAt(int base, const std::string& name) {
  if (mkdirat(base, name.c_str(), kFolderMode) != 0 && errno != EEXIST) return UniqueFd();
  return UniqueFd(openat(base, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::string uniqueName() {
  std::string name;
  if (miscGenUniqueFileName(name) != 0)
    KX_RUNNER_LOG("can not create temp name %s\n", name.c_str());
  return name;
}

// Why a regular file cannot be renamed to this name; empty when it can.
std::string obstacleAt(const OutputFolder& folder, const std::string& name) {
  const auto there = folder.find(name);
  if (!there && errno != ENOENT) return folder.pathOf(name) + ": " + strerror(errno);
  if (there && S_ISDIR(there->st_mode)) return folder.pathOf(name) + " is a folder";
  return "";
}

// A usable regular file made from this source. Logs when it was made from another.
bool isCurrent(const OutputFolder& folder, const std::string& name, const SourceName& source,
               const SourceStamp& stamp, const std::function<bool(const std::string&)>& isUsable) {
  const auto there = folder.find(name);
  if (!there || !S_ISREG(there->st_mode)) return false;
  if (there->st_mtim.tv_sec != stamp.modified) {
    KX_RUNNER_LOG_LEVEL(4,
                        "mTime of \"%s\" and \"%s\" are not same, we remove it and reTranscode\n",
                        source.path().c_str(), folder.pathOf(name).c_str());
    return false;
  }
  return isUsable(folder.pathOf(name));
}

// Only a regular file takes the time, whatever stands at the name by now.
bool setSourceTime(const OutputFolder& folder, const std::string& name, const SourceName& source) {
  const UniqueFd file(
      openat(folder.fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info;
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  const std::string itself = "/proc/self/fd/" + std::to_string(file.get());
  return miscSetSameModTime(source.path(), itself) == 0;
}

// Moves a finished file to its name and gives it the source's time.
std::string putFile(TemporaryFile& file, const OutputFolder& folder, const std::string& name,
                    const SourceName& source) {
  const std::string from = file.path();
  const std::string to = folder.pathOf(name);
  const int error = file.moveTo(folder, name);
  if (error != 0) {
    KX_RUNNER_LOG_LEVEL(2, "rename %s -> %s fail:%d\n", from.c_str(), to.c_str(), error);
    return "the result cannot be renamed to " + to + ": " + strerror(error);
  }
  if (!setSourceTime(folder, name, source)) {
    KX_RUNNER_LOG_LEVEL(2, "set MTime %s <=> %s fail\n", source.path().c_str(), to.c_str());
  }
  return "";
}

}  // namespace

OutputFolder OutputFolder::make(const std::string& base, const std::string& below) {
  OutputFolder result;
  UniqueFd folder(open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  std::istringstream parts(below);
  for (std::string part; folder && std::getline(parts, part, '/');)
    folder = makeFolderAt(folder.get(), part);
  result.m_fd = std::move(folder);
  result.m_path = base + below;
  return result;
}

std::optional<struct stat> OutputFolder::find(const std::string& name) const {
  struct stat info;
  if (fstatat(m_fd.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return info;
}

bool OutputFolder::remove(const std::string& name) const {
  return unlinkat(m_fd.get(), name.c_str(), 0) == 0;
}

std::string OutputFolder::readLink(const std::string& name) const {
  char target[PATH_MAX];
  const ssize_t length = readlinkat(m_fd.get(), name.c_str(), target, sizeof target);
  return length <= 0 ? "" : std::string(target, static_cast<size_t>(length));
}

std::optional<SourceStamp> stampOf(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return SourceStamp{info.st_mtim.tv_nsec, info.st_mtim.tv_sec, info.st_size};
}

TemporaryFile::TemporaryFile(const OutputFolder& folder, const std::string& extension)
    : m_folder(folder), m_name(uniqueName() + extension) {}

TemporaryFile::~TemporaryFile() {
  clear();
}

std::string TemporaryFile::remuxName() const {
  return m_name + ".remux.mp4";
}

void TemporaryFile::clear() {
  removeIfThere(m_name);
  removeIfThere(remuxName());
}

void TemporaryFile::removeIfThere(const std::string& name) {
  if (m_folder.remove(name) || errno == ENOENT) return;
  KX_RUNNER_LOG("remove temp file %s fail\n", m_folder.pathOf(name).c_str());
}

bool TemporaryFile::takeRemux() {
  const bool renamed =
      renameat(m_folder.fd(), remuxName().c_str(), m_folder.fd(), m_name.c_str()) == 0;
  if (renamed) {
    KX_RUNNER_LOG("remux success, rename %s -> %s\n", remuxPath().c_str(), path().c_str());
  } else {
    KX_RUNNER_LOG("rename %s -> %s FAIL\n", remuxPath().c_str(), path().c_str());
  }
  return renamed;
}

int TemporaryFile::moveTo(const OutputFolder& folder, const std::string& name) {
  if (renameat(m_folder.fd(), m_name.c_str(), folder.fd(), name.c_str()) == 0) return 0;
  const int error = errno;
  if (!m_folder.remove(m_name))
    KX_RUNNER_LOG("remove tmp file %s fail:%d\n", path().c_str(), errno);
  return error;
}

VideoPlacement::VideoPlacement(const SourceName& source, const OutputFolder& visible,
                               const OutputFolder& links, const std::string& profile, int rotation)
    : m_source(source), m_visible(visible), m_links(links), m_profile(profile),
      m_rotation(rotation), m_name(visibleName(source.name, profile, rotation)),
      m_link(linkName(source.name, profile)) {}

std::string VideoPlacement::obstacle() const {
  return obstacleAt(m_visible, m_name);
}

template <typename Visit>
void VideoPlacement::forEachStaleRotation(Visit visit) const {
  if (m_rotation == 0) return;
  for (const int rotation : kRotations) {
    if (rotation == m_rotation) continue;
    const std::string name = visibleName(m_source.name, m_profile, rotation);
    const auto there = m_visible.find(name);
    if (there && S_ISREG(there->st_mode)) visit(name);
  }
}

void VideoPlacement::noteStaleRotations() const {
  forEachStaleRotation([this](const std::string& name) {
    KX_RUNNER_LOG("rotation=%d, so we remove %s\n", m_rotation, m_visible.pathOf(name).c_str());
  });
}

void VideoPlacement::removeStaleRotations() const {
  forEachStaleRotation([this](const std::string& name) {
    if (!m_visible.remove(name)) KX_RUNNER_LOG("remove %s fail\n", m_visible.pathOf(name).c_str());
  });
}

bool VideoPlacement::reuse(const SourceStamp& source,
                           const std::function<bool(const std::string&)>& isUsable) {
  if (!isCurrent(m_visible, m_name, m_source, source, isUsable)) return false;
  if (m_links.readLink(m_link) != linkTarget(m_name)) {
    KX_RUNNER_LOG("%s is already exist, we create symlink for it\n",
                  m_visible.pathOf(m_name).c_str());
    if (m_links.find(m_link) && m_links.readLink(m_link).empty())
      KX_RUNNER_LOG("remove sympath %s fail\n", m_links.pathOf(m_link).c_str());
    const int error = makeLink();
    if (error != 0) {
      KX_RUNNER_LOG_LEVEL(2, "make symlink %s -> %s fail:%d, we transcode it again\n",
                          m_links.pathOf(m_link).c_str(), linkTarget(m_name).c_str(), error);
      return false;
    }
  }
  removeStaleRotations();
  return true;
}

std::string VideoPlacement::put(TemporaryFile& file) {
  std::string fault = putFile(file, m_visible, m_name, m_source);
  if (!fault.empty()) return fault;
  replaceLink();
  removeStaleRotations();
  return "";
}

// The new link takes the name of the old one in one step. Only a link is ever replaced.
int VideoPlacement::makeLink() {
  const auto there = m_links.find(m_link);
  if (there && !S_ISLNK(there->st_mode)) return EEXIST;
  const std::string fresh = uniqueName();
  if (symlinkat(linkTarget(m_name).c_str(), m_links.fd(), fresh.c_str()) != 0) return errno;
  if (renameat(m_links.fd(), fresh.c_str(), m_links.fd(), m_link.c_str()) == 0) return 0;
  const int error = errno;
  m_links.remove(fresh);
  return error;
}

void VideoPlacement::replaceLink() {
  if (m_links.find(m_link) && m_links.readLink(m_link).empty())
    KX_RUNNER_LOG("remove symlink %s fail\n", m_links.pathOf(m_link).c_str());
  const int error = makeLink();
  if (error != 0) {
    KX_RUNNER_LOG_LEVEL(2, "make symlink %s -> %s fail:%d\n", m_links.pathOf(m_link).c_str(),
                        linkTarget(m_name).c_str(), error);
  }
}

AudioPlacement::AudioPlacement(const SourceName& source, const OutputFolder& folder)
    : m_source(source), m_folder(folder), m_name(audioName(source.name)) {}

std::string AudioPlacement::obstacle() const {
  return obstacleAt(m_folder, m_name);
}

bool AudioPlacement::reuse(const SourceStamp& source,
                           const std::function<bool(const std::string&)>& isUsable) const {
  return isCurrent(m_folder, m_name, m_source, source, isUsable);
}

std::string AudioPlacement::put(TemporaryFile& file) const {
  return putFile(file, m_folder, m_name, m_source);
}

}  // namespace runner
