#include "tests/watch/WatchWorld.h"

#include <sys/stat.h>
#include <utime.h>

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

WatchWorld::WatchWorld() {
  EXPECT_EQ(store->init(m_state / "jobs.db"), 0);
}

WatchWorld::~WatchWorld() {
  if (m_isMonitorReady) {
    monitor->stopAll();
    monitor->uninit();
  }
  KxTransFileMonitor::setListener(nullptr);
  store->uninit();
}

std::string WatchWorld::folder(const std::string& name) const {
  fs::create_directories(media(name));
  return media(name);
}

std::string WatchWorld::video(const std::string& name, size_t bytes) const {
  fs::create_directories(fs::path(media(name)).parent_path());
  kxtest::writeFile(media(name), std::string(bytes, 'x'));
  return media(name);
}

KxTransFileInit_s WatchWorld::paths() const {
  return {m_state / "mediadb.xml", m_state / "xcodesvr.xml"};
}

void WatchWorld::initMonitor() {
  m_isMonitorReady = true;
  ASSERT_EQ(monitor->init(7, paths()), 0);
}

std::string WatchWorld::below(const std::string& path) const {
  const std::string prefix = m_media.path().string() + "/";
  return path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size()) : path;
}

std::vector<KxDBTaskParam> WatchWorld::rows() const {
  const StoreGuard lock;
  std::vector<KxDBTaskParam> all;
  const KxDBGetJobParam every(1UL << 4, 1000, "Rank", 0, true, -1, 0);
  for (const KxDBTask& task : store->getDBJob(every)) all.push_back(task.param);
  return all;
}

std::vector<std::string> WatchWorld::jobs() const {
  const std::vector<KxDBTaskParam> all = rows();
  std::vector<std::string> texts;
  texts.reserve(all.size());
  for (const KxDBTaskParam& row : all)
    texts.push_back(below(row.src) + ":" + std::to_string(row.jobFlag));
  return texts;
}

std::vector<std::string> WatchWorld::records() const {
  std::vector<std::string> texts;
  const StoreGuard lock;
  for (const std::string& folder : store->getDBFolders("/")) {
    for (const KxDBMgrFileParam& file : store->getDBFiles(folder)) {
      struct stat info {};
      const bool isNow =
          stat((folder + file.filename).c_str(), &info) == 0 && info.st_mtime == file.modifiedTime;
      texts.push_back(below(folder + file.filename) + ":" +
                      (isNow ? "now" : std::to_string(file.modifiedTime)));
    }
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

bool WatchWorld::settles(std::vector<std::string> wanted) const {
  std::vector<std::string> recorded = wanted;
  for (std::string& job : recorded) job.replace(job.rfind(':'), std::string::npos, ":now");
  std::sort(wanted.begin(), wanted.end());
  std::sort(recorded.begin(), recorded.end());
  const auto isSettled = [&] {
    std::vector<std::string> found = jobs();
    std::sort(found.begin(), found.end());
    return found == wanted && records() == recorded;
  };
  if (kxtest::waitUntil(isSettled)) return true;
  EXPECT_THAT(jobs(), testing::UnorderedElementsAreArray(wanted));
  EXPECT_THAT(records(), testing::ElementsAreArray(recorded));
  return false;
}

void WatchWorld::deleteAllJobs() const {
  const StoreGuard lock;
  store->exec("DELETE FROM JobTable");
}

void setTime(const std::string& path, long seconds) {
  const utimbuf times{seconds, seconds};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}
