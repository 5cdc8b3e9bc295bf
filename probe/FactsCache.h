#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "probe/ContainerFacts.h"

namespace kxprobe {

// Identity of a file's contents as far as stat can tell.
struct FileStamp {
  std::string path;
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t size = 0;
  int64_t modifiedNs = 0;
  int64_t changedNs = 0;
  int64_t titleSize = 0;  // bytes of the whole DVD title, 0 for other files

  bool operator==(const FileStamp&) const = default;
};

// Nothing when the file cannot be examined.
std::optional<FileStamp> stampOf(const std::string& path);

// Remembers the facts of the last file probed: one job asks for them once when it is queued
// and again for each of its profiles. Thread-safe.
class FactsCache {
 public:
  static FactsCache& instance();
  std::optional<ContainerFacts> find(const FileStamp& stamp);
  void store(const FileStamp& stamp, const ContainerFacts& facts);

 private:
  std::mutex m_mutex;
  FileStamp m_stamp;  // guarded by m_mutex
  ContainerFacts m_facts;
};

}  // namespace kxprobe
