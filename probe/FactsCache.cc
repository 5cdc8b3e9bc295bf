#include "probe/FactsCache.h"

#include <sys/stat.h>

namespace kxprobe {
namespace {

int64_t nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

std::optional<FileStamp> stampOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  FileStamp stamp;
  stamp.path = path;
  stamp.device = info.st_dev;
  stamp.inode = info.st_ino;
  stamp.size = info.st_size;
  stamp.modifiedNs = nanoseconds(info.st_mtim);
  stamp.changedNs = nanoseconds(info.st_ctim);
  return stamp;
}

FactsCache& FactsCache::instance() {
  static FactsCache cache;
  return cache;
}

std::optional<ContainerFacts> FactsCache::find(const FileStamp& stamp) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_stamp.path.empty() || m_stamp != stamp) return std::nullopt;
  return m_facts;
}

void FactsCache::store(const FileStamp& stamp, const ContainerFacts& facts) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_stamp = stamp;
  m_facts = facts;
}

}  // namespace kxprobe
