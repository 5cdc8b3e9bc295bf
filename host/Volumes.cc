// NasVol: the mounted volumes whose media may be indexed.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "KxHostPlatform.h"
#include "frame/UniqueFd.h"

namespace {

constexpr std::string_view kSystemTypes[] = {
    "autofs",     "binfmt_misc", "bpf",       "cgroup",   "cgroup2",  "configfs",
    "cpuset",     "debugfs",     "devpts",    "devtmpfs", "efivarfs", "fusectl",
    "hugetlbfs",  "mqueue",      "nsfs",      "proc",     "pstore",   "ramfs",
    "rpc_pipefs", "securityfs",  "selinuxfs", "sysfs",    "tracefs"};
constexpr std::string_view kSystemFolders[] = {"/proc", "/sys", "/dev", "/run", "/boot"};

bool isUnder(std::string_view path, std::string_view folder) {
  return path.substr(0, folder.size()) == folder &&
         (path.size() == folder.size() || folder == "/" || path[folder.size()] == '/');
}

bool isIndexableMount(std::string_view type, std::string_view folder) {
  const bool systemType =
      std::find(std::begin(kSystemTypes), std::end(kSystemTypes), type) != std::end(kSystemTypes);
  const bool systemFolder =
      std::any_of(std::begin(kSystemFolders), std::end(kSystemFolders),
                  [&](std::string_view other) { return isUnder(folder, other); });
  return !systemType && !systemFolder;
}

// The table writes blanks, tabs, line ends and backslashes of a path as "\040" and so on.
std::string unescaped(const std::string& text) {
  const auto digit = [&](size_t at) { return text[at] >= '0' && text[at] <= '7'; };
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool escape =
        text[i] == '\\' && i + 3 < text.size() && digit(i + 1) && digit(i + 2) && digit(i + 3);
    if (!escape) {
      result.push_back(text[i]);
      continue;
    }
    result.push_back(static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                       (text[i + 3] - '0')));
    i += 3;
  }
  return result;
}

// A line is "36 35 98:0 / /mnt rw,noatime master:1 - ext4 /dev/root rw".
std::vector<std::string> parseMountTable(const std::string& table) {
  std::set<std::string> folders;
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string word;
    std::string folder;
    for (int i = 0; i < 5; ++i) words >> folder;
    while (words >> word && word != "-") {
    }
    std::string type;
    words >> type;
    folder = unescaped(folder);
    if (!type.empty() && isIndexableMount(type, folder)) folders.insert(folder);
  }
  return {folders.begin(), folders.end()};
}

std::atomic<NasVol*> gInstance{nullptr};

}  // namespace

struct NasVol::Impl {
  std::mutex mutex;
  UniqueFd table;  // the kernel marks it readable out of band when the mounts change
  std::vector<std::string> folders;

  bool unchanged() const {
    pollfd state = {table.get(), POLLPRI, 0};
    return table && poll(&state, 1, 0) == 0;
  }

  bool readTable() {
    if (!table) table.reset(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!table || lseek(table.get(), 0, SEEK_SET) != 0) return false;
    std::string text;
    std::array<char, 8192> buffer;
    ssize_t count = 0;
    while ((count = read(table.get(), buffer.data(), buffer.size())) > 0)
      text.append(buffer.data(), static_cast<size_t>(count));
    if (count == 0) folders = parseMountTable(text);
    return count == 0;
  }
};

NasVol::NasVol() : m_impl(std::make_unique<Impl>()) {}

NasVol::~NasVol() {
  NasVol* self = this;
  gInstance.compare_exchange_strong(self, nullptr);
}

void NasVol::setInstance(NasVol* instance) {
  gInstance = instance;
}

NasVol* NasVol::getInstance() {
  return gInstance;
}

int NasVol::genIndexableVolDir() {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  if (!m_impl->folders.empty() && m_impl->unchanged()) return 0;
  return m_impl->readTable() ? 0 : 1;
}

std::vector<std::string> NasVol::getIndexableVolDirs() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->folders;
}

bool NasVol::isIndexable(const std::string& path) const {
  const bool system = std::any_of(std::begin(kSystemFolders), std::end(kSystemFolders),
                                  [&](std::string_view other) { return isUnder(path, other); });
  if (system || path.empty() || path.front() != '/') return false;
  if (path.find_first_not_of('/') == std::string::npos) return false;
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return std::any_of(m_impl->folders.begin(), m_impl->folders.end(),
                     [&](const std::string& folder) { return isUnder(path, folder); });
}
