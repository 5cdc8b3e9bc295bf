#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "jobstore/Sqlite.h"

namespace kxjobstore {

// Keeps the places in the queue dense. Failures are logged under the given site.
class RankKeeper {
 public:
  RankKeeper(sqlite3* db, LogSite site) : m_db(db), m_site(site) {}

  // The place behind the last job.
  std::optional<int64_t> nextRank() const;
  // Moves up what stood behind one deleted job.
  bool closeAfter(int64_t deletedRank) const;
  // Moves up what stood behind several deleted jobs.
  bool closeAfterAll(std::vector<int64_t> deletedRanks) const;
  // Makes ascending ranks consecutive. The first keeps its place, whatever it is.
  bool closeGaps(const std::vector<int64_t>& ranks) const;

 private:
  sqlite3* m_db;
  LogSite m_site;
};

// The ranks that are in the first list only; each occurrence counts.
std::vector<int64_t> missingRanks(std::vector<int64_t> before, std::vector<int64_t> after);

}  // namespace kxjobstore
