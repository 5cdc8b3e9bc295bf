// F2notify on inotify.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "frame/Log.h"
#include "frame/UniqueFd.h"

static constexpr const char* kLogSource = "F2notify";

namespace {

constexpr uint32_t kDefaultEvents =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE;
constexpr uint32_t kWatchFlags = IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;
constexpr size_t kReadBytes = size_t{64} * 1024;

using Clock = std::chrono::steady_clock;

// Turns posts of a semaphore into a readable descriptor, since a wait cannot cover both a
// semaphore and a descriptor.
class SemaphoreRelay {
 public:
  explicit SemaphoreRelay(sem_t* semaphore)
      : m_semaphore(semaphore), m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_semaphore == nullptr || !m_event) return;
    // Signals are for the threads that expect them.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    m_thread = std::thread([this] { relay(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  SemaphoreRelay(const SemaphoreRelay&) = delete;
  SemaphoreRelay& operator=(const SemaphoreRelay&) = delete;
  ~SemaphoreRelay() {
    if (!m_thread.joinable()) return;
    m_ending = true;
    sem_post(m_semaphore);
    m_thread.join();
  }

  int fd() const { return m_event.get(); }
  void acknowledge() {
    uint64_t count = 0;
    while (read(m_event.get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
  }

 private:
  void relay() {
    while (!m_ending) {
      if (sem_wait(m_semaphore) != 0) continue;
      const uint64_t one = 1;
      if (!m_ending && write(m_event.get(), &one, sizeof one) < 0) return;
    }
  }

  sem_t* m_semaphore;
  UniqueFd m_event;
  std::atomic<bool> m_ending{false};
  std::thread m_thread;
};

// Which folder each watch stands for. Paths end in "/".
class WatchMap {
 public:
  void put(int wd, const std::string& folder) {
    drop(wd);
    const auto other = m_byFolder.find(folder);
    if (other != m_byFolder.end()) m_byWd.erase(other->second);
    m_byWd[wd] = folder;
    m_byFolder[folder] = wd;
  }

  void drop(int wd) {
    const auto known = m_byWd.find(wd);
    if (known == m_byWd.end()) return;
    m_byFolder.erase(known->second);
    m_byWd.erase(known);
  }

  const std::string* folder(int wd) const {
    const auto known = m_byWd.find(wd);
    return known == m_byWd.end() ? nullptr : &known->second;
  }

  // The folder itself and everything below it: they stand next to each other.
  std::vector<std::pair<std::string, int>> tree(const std::string& folder) const {
    std::vector<std::pair<std::string, int>> found;
    for (auto it = m_byFolder.lower_bound(folder);
         it != m_byFolder.end() && it->first.compare(0, folder.size(), folder) == 0; ++it)
      found.emplace_back(*it);
    return found;
  }

  void clear() {
    m_byWd.clear();
    m_byFolder.clear();
  }

 private:
  std::unordered_map<int, std::string> m_byWd;
  std::map<std::string, int> m_byFolder;
};

std::vector<std::string> normalisedList(const char* const* list) {
  std::vector<std::string> folders;
  for (; list != nullptr && *list != nullptr; ++list) folders.push_back(convertFolderPath(*list));
  return folders;
}

// Names of the folders in a folder that are to be watched too. Entries that vanish meanwhile
// are none of our business: their parent is watched already.
std::vector<std::string> subFolders(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) {
    if (errno != ENOENT && errno != ENOTDIR) {
      KX_LOG_LEVEL(3, "can not look for the folders in %s, errno=%d, strerror=%s\n", folder.c_str(),
                   errno, strerror(errno));
    }
    return names;
  }
  while (const dirent* entry = readdir(dir)) {
    struct stat info = {};
    const bool isFolder = entry->d_type == DT_DIR ||
                          (entry->d_type == DT_UNKNOWN &&
                           fstatat(dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                           S_ISDIR(info.st_mode));
    if (isFolder && isValidDirName(entry->d_name)) names.emplace_back(entry->d_name);
  }
  closedir(dir);
  return names;
}

}  // namespace

struct F2notify::Impl {
  sem_t* semaphore = nullptr;

  std::mutex mutex;  // guards watches and the opening and closing of queue
  UniqueFd queue;
  WatchMap watches;
  std::unique_ptr<SemaphoreRelay> relay;

  // Only the thread that asks for events touches these.
  std::vector<char> raw;
  size_t rawUsed = 0;
  size_t rawNext = 0;
  alignas(inotify_event) std::array<char, sizeof(inotify_event) + NAME_MAX + 1> event;

  enum class Added { kYes, kGone, kLimit };

  Added addOne(const std::string& folder, uint32_t events) {
    const std::lock_guard<std::mutex> lock(mutex);
    const int wd = inotify_add_watch(queue.get(), folder.c_str(), events | kWatchFlags);
    if (wd < 0) return refused(folder);
    watches.put(wd, folder);
    return Added::kYes;
  }

  // What vanished meanwhile is no failure; what may not be read is not watched in silence.
  static Added refused(const std::string& folder) {
    if (errno == ENOSPC) return Added::kLimit;
    if (errno != ENOENT && errno != ENOTDIR) {
      const int reason = errno;
      KX_LOG_LEVEL(3, "can not watch %s, errno=%d, strerror=%s\n", folder.c_str(), reason,
                   strerror(reason));
      errno = reason;
    }
    return Added::kGone;
  }

  // True when the event is one that the caller is to see.
  bool accept(const inotify_event& found) {
    if ((found.mask & IN_Q_OVERFLOW) != 0) return true;
    const std::lock_guard<std::mutex> lock(mutex);
    if ((found.mask & IN_IGNORED) != 0) {
      watches.drop(found.wd);
      return false;
    }
    return watches.folder(found.wd) != nullptr;
  }

  // Next event among those already read; NULL when they are used up.
  inotify_event* nextRead() {
    while (rawNext + sizeof(inotify_event) <= rawUsed) {
      inotify_event head = {};
      memcpy(&head, raw.data() + rawNext, sizeof head);
      const char* name = raw.data() + rawNext + sizeof head;
      rawNext += sizeof head + head.len;
      if (!accept(head)) continue;
      event.fill('\0');
      memcpy(event.data(), &head, sizeof head);
      memcpy(event.data() + sizeof head, name, strnlen(name, std::min<size_t>(head.len, NAME_MAX)));
      return reinterpret_cast<inotify_event*>(event.data());
    }
    return nullptr;
  }

  void readMore() {
    raw.resize(kReadBytes);
    const ssize_t count = read(queue.get(), raw.data(), raw.size());
    rawUsed = count > 0 ? static_cast<size_t>(count) : 0;
    rawNext = 0;
  }
};

F2notify::F2notify() : m_impl(std::make_unique<Impl>()) {}

F2notify::~F2notify() {
  x_inotifytools_cleanup();
}

int F2notify::x_inotifytools_pre_init(sem_t* wakeUp) {
  m_impl->semaphore = wakeUp;
  return wakeUp == nullptr ? 1 : 0;
}

int F2notify::x_inotifytools_initialize() {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  if (m_impl->queue) return 0;
  m_impl->queue.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!m_impl->queue) {
    KX_LOG_ERRNO("can not open the event queue");
    return 1;
  }
  m_impl->relay = std::make_unique<SemaphoreRelay>(m_impl->semaphore);
  return 0;
}

void F2notify::x_inotifytools_cleanup() {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  m_impl->relay.reset();
  m_impl->queue.reset();
  m_impl->watches.clear();
  m_impl->rawUsed = m_impl->rawNext = 0;
}

int F2notify::x_my_inotifytools_watch_recursively_with_exclude(const char* path, int events,
                                                               const char* const* exclude) {
  if (path == nullptr || *path == '\0') return 1;
  const std::vector<std::string> left = normalisedList(exclude);
  const auto mask = events == 0 ? kDefaultEvents : static_cast<uint32_t>(events);
  // A folder is watched before it is read, so that what appears in between gives an event.
  std::vector<std::string> pending = {convertFolderPath(path)};
  const std::string top = pending.front();
  while (!pending.empty()) {
    const std::string folder = std::move(pending.back());
    pending.pop_back();
    if (std::find(left.begin(), left.end(), folder) != left.end()) continue;
    const Impl::Added added = m_impl->addOne(folder, mask);
    if (added == Impl::Added::kLimit) {
      KX_LOG_LEVEL(3, "limit of watches reached at %s, raise fs.inotify.max_user_watches\n",
                   folder.c_str());
      errno = ENOSPC;
      return 1;
    }
    if (added == Impl::Added::kGone && folder == top) return 1;
    if (added == Impl::Added::kGone) continue;
    for (const std::string& name : subFolders(folder)) pending.push_back(folder + name + "/");
  }
  return 0;
}

inotify_event* F2notify::x_inotifytools_next_event(int seconds) {
  Impl& self = *m_impl;
  if (!self.queue) return nullptr;
  const auto deadline = Clock::now() + std::chrono::seconds(std::max(seconds, 0));
  for (;;) {
    if (inotify_event* found = self.nextRead()) return found;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int limit = seconds < 0 ? -1 : static_cast<int>(std::max<long>(left, 0));
    std::array<pollfd, 2> fds = {{{self.queue.get(), POLLIN, 0}, {self.relay->fd(), POLLIN, 0}}};
    const int ready = poll(fds.data(), fds.size(), limit);
    if (ready == 0 || (ready < 0 && errno != EINTR)) return nullptr;
    if (ready < 0) continue;
    if (fds[1].revents != 0) {
      self.relay->acknowledge();
      return nullptr;
    }
    self.readMore();
  }
}

const char* F2notify::x_inotifytools_filename_from_wd(int wd) {
  thread_local std::string answer;
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  const std::string* folder = m_impl->watches.folder(wd);
  if (folder == nullptr) return nullptr;
  answer = *folder;
  return answer.c_str();
}

void F2notify::x_inotifytools_replace_filename(const char* from, const char* to) {
  if (from == nullptr || to == nullptr || *from == '\0' || *to == '\0') return;
  const std::string oldFolder = convertFolderPath(from);
  const std::string newFolder = convertFolderPath(to);
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  for (const auto& [folder, wd] : m_impl->watches.tree(oldFolder))
    m_impl->watches.put(wd, newFolder + folder.substr(oldFolder.size()));
}

int F2notify::x_inotifytools_remove_watch_by_filename(const char* path) {
  if (path == nullptr || *path == '\0') return 1;
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  const auto tree = m_impl->watches.tree(convertFolderPath(path));
  for (const auto& [folder, wd] : tree) {
    m_impl->watches.drop(wd);
    inotify_rm_watch(m_impl->queue.get(), wd);
  }
  return tree.empty() ? 1 : 0;
}
