// What folder watching adds to the file system and the kernel: a rescan of known files beside a
// plain walk, watches beside a plain loop of inotify_add_watch, and the time from the close of a
// file to its row in the queue.

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <thread>

#include "KxHostPlatform.h"
#include "KxTransDBMgr.h"
#include "KxTransFileMonitor.h"
#include "KxTransFileScanner.h"
#include "Misc.h"
#include "bench/Bench.h"
#include "frame/UniqueFd.h"
#include "host/HostLog.h"

namespace fs = std::filesystem;

namespace {

constexpr int kFolders = 1000;
constexpr int kFilesEach = 100;
constexpr int kWatched = 10000;
constexpr int kClosed = 1000;
constexpr int kRuns = 5;

KxTransDBMgr* store() {
  return KxTransDBMgr::getInstance();
}

class StoreLock {
 public:
  StoreLock() { store()->mutexLock(); }
  ~StoreLock() { store()->mutexUnLock(); }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
};

void require(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

void makeFile(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  require(static_cast<bool>(fd), "cannot make a file");
}

struct Folders {
  void operator()(DIR* dir) const { closedir(dir); }
};

// readdir and lstat, and nothing else.
size_t plainWalk(const std::string& folder) {
  size_t files = 0;
  const std::unique_ptr<DIR, Folders> dir(opendir(folder.c_str()));
  while (const dirent* entry = readdir(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    const std::string path = folder + "/" + entry->d_name;
    struct stat info {};
    lstat(path.c_str(), &info);
    if (S_ISDIR(info.st_mode)) {
      files += plainWalk(path);
    } else {
      ++files;
    }
  }
  return files;
}

void plainWatches(int queue, const std::string& folder) {
  inotify_add_watch(queue, folder.c_str(), IN_CREATE | IN_MOVE | IN_DELETE | IN_CLOSE_WRITE);
  const std::unique_ptr<DIR, Folders> dir(opendir(folder.c_str()));
  while (const dirent* entry = readdir(dir.get())) {
    if (entry->d_type == DT_DIR && entry->d_name[0] != '.')
      plainWatches(queue, folder + "/" + entry->d_name);
  }
}

long long countRows() {
  const StoreLock lock;
  long long count = 0;
  store()->selectOneInt("SELECT COUNT(*) AS res FROM JobTable", count);
  return count;
}

// Records all files of the tree as a scan would, without their jobs.
void recordTree(const std::string& top) {
  const StoreLock lock;
  require(store()->exec("BEGIN") == 0, "no transaction");
  for (const auto& folder : fs::directory_iterator(top)) {
    for (const auto& file : fs::directory_iterator(folder)) {
      struct stat info {};
      lstat(file.path().c_str(), &info);
      require(store()->addDBFile({file.path().filename(), folder.path().string() + "/",
                                  info.st_mtime, info.st_size}) == 0,
              "cannot record a file");
    }
  }
  require(store()->exec("COMMIT") == 0, "no commit");
}

void benchRescan(kxbench::Report& report, KxTransFileConfig& config) {
  const kxbench::Folder media;
  for (int i = 0; i < kFolders; ++i) {
    const std::string folder = media / ("folder" + std::to_string(i));
    fs::create_directory(folder);
    for (int k = 0; k < kFilesEach; ++k) makeFile(folder + "/film" + std::to_string(k) + ".mp4");
  }
  const std::string top = media.path();
  recordTree(top);
  KxTransFileScanner* scanner = KxTransFileScanner::getInstance();
  require(scanner->init(&config) == 0, "no scanner");
  plainWalk(top);
  // Side by side, so that both see the same state of the machine.
  std::vector<double> ours, plain;
  for (int i = 0; i < kRuns; ++i) {
    plain.push_back(kxbench::seconds([&] {
      require(plainWalk(top) == size_t{kFolders} * kFilesEach, "the tree is not whole");
    }));
    ours.push_back(kxbench::seconds([&] { scanner->scanFolder(KxTransFileSetting(top, "4")); }));
  }
  std::sort(ours.begin(), ours.end());
  std::sort(plain.begin(), plain.end());
  require(countRows() == 0, "an unchanged file was queued");
  const double limit = plain[kRuns / 2] * 1000;
  report.time("rescan, 100,000 unchanged files", ours[kRuns / 2] * 1000, limit, 3 * limit);
  scanner->uninit();
}

void benchWatches(kxbench::Report& report) {
  const kxbench::Folder media;
  for (int i = 0; i < kWatched; ++i)
    fs::create_directories(media / (std::to_string(i / 100) + "/" + std::to_string(i)));
  const std::string top = media.path();
  std::vector<double> ours, plain;
  for (int i = 0; i < kRuns; ++i) {
    {
      const UniqueFd queue(inotify_init1(IN_CLOEXEC));
      plain.push_back(kxbench::seconds([&] { plainWatches(queue.get(), top); }));
    }
    sem_t wakeUp;
    sem_init(&wakeUp, 0, 0);
    {
      F2notify notify;
      notify.x_inotifytools_pre_init(&wakeUp);
      require(notify.x_inotifytools_initialize() == 0, "no event queue");
      ours.push_back(kxbench::seconds([&] {
        require(notify.x_my_inotifytools_watch_recursively_with_exclude(top.c_str(), 0, nullptr) ==
                    0,
                "not all folders can be watched");
      }));
    }
    sem_destroy(&wakeUp);
  }
  std::sort(ours.begin(), ours.end());
  std::sort(plain.begin(), plain.end());
  const double limit = plain[kRuns / 2] * 1000;
  report.time("watches on 10,000 folders", ours[kRuns / 2] * 1000, limit, 2 * limit);
}

// Files are closed one after the other; the next comes when the row of the last is there.
void benchLatency(kxbench::Report& report, const kxbench::Folder& state) {
  const kxbench::Folder media;
  KxTransFileMonitor* monitor = KxTransFileMonitor::getInstance();
  require(monitor->init(0, {state / "mediadb.xml", state / "xcodesvr.xml"}) == 0, "no monitor");
  require(monitor->addFolder(media.path(), "4") == 0, "no folder");
  require(monitor->startNotify() == 0, "no agent");
  // The limit: the kernel's event, waited for by a thread that does nothing else.
  const UniqueFd queue(inotify_init1(IN_CLOEXEC));
  inotify_add_watch(queue.get(), media.path().c_str(), IN_CLOSE_WRITE);
  std::vector<double> rows, events;
  static std::atomic<int> queued;
  queued = 0;
  const KxWatchListener listener{nullptr, [](void*) { ++queued; }, nullptr};
  KxTransFileMonitor::setListener(&listener);
  for (int i = 0; i < kClosed; ++i) {
    UniqueFd fd(
        open((media / (std::to_string(i) + ".mp4")).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    require(write(fd.get(), "no film", 7) == 7, "cannot write");
    const auto closed = std::chrono::steady_clock::now();
    const auto since = [&] {
      return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - closed)
          .count();
    };
    fd.reset();
    char event[4096];
    require(read(queue.get(), event, sizeof event) > 0, "no event");
    events.push_back(since());
    while (queued <= i) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      require(since() < 10000, "a file was lost");
    }
    rows.push_back(since());
  }
  require(countRows() == kClosed, "rows are missing");
  KxTransFileMonitor::setListener(nullptr);
  monitor->stopAll();
  monitor->uninit();
  std::sort(rows.begin(), rows.end());
  std::sort(events.begin(), events.end());
  const size_t median = kClosed / 2;
  const size_t late = kClosed * 99 / 100;
  report.time("close of a file to its row, median", rows[median], events[median], 20);
  report.time("close of a file to its row, 99th percentile", rows[late], events[late], 100);
}

int run(const std::string& tools) {
  kxhost::LogSettings quiet;
  quiet.standardError = false;
  quiet.level = 2;
  kxhost::configureLog(quiet);
  const kxbench::Folder root;
  const kxbench::Folder state;
  // The media library's command, as it is shipped.
  const std::string folder = root / "usr/local/medialibrary/bin";
  fs::create_directories(folder);
  fs::create_directories(root / "etc/config");
  fs::create_directories(root / "var/lib/xcode");
  fs::copy_file(tools + "/catalogcmd", folder + "/catalogcmd");
  miscSetSystemRoot(root.path());
  require(store()->init(state / "jobs.db") == 0, "no job store");
  kxbench::Report report;
  {
    KxTransFileConfig config;
    require(config.init({state / "m.xml", state / "x.xml"}) == 0, "no folder list");
    benchRescan(report, config);
  }
  benchWatches(report);
  benchLatency(report, state);
  store()->uninit();
  require(fs::file_size(root / "var/lib/xcode/marks.db") > 0, "the media library was not told");
  return report.exitStatus();
}

}  // namespace

int main() {
  try {
    return run(KX_BUILD_DIR "/tools");
  } catch (const std::exception& error) {
    fprintf(stderr, "watch_bench: %s\n", error.what());
    return 2;
  }
}
