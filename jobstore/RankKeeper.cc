#include "jobstore/RankKeeper.h"

#include <algorithm>
#include <functional>
#include <iterator>

namespace kxjobstore {

std::optional<int64_t> RankKeeper::nextRank() const {
  const auto highest = selectInt(m_db, "SELECT IFNULL(MAX(Rank), 0) AS res FROM JobTable;", m_site);
  if (!highest) return std::nullopt;
  return *highest + 1;
}

bool RankKeeper::closeAfter(int64_t deletedRank) const {
  return runSql(m_db,
                sqlText("UPDATE JobTable SET Rank = Rank - 1 WHERE Rank > %lld;",
                        static_cast<long long>(deletedRank)),
                m_site);
}

bool RankKeeper::closeAfterAll(std::vector<int64_t> deletedRanks) const {
  // From the last one down, or each step would shift the ranks still to come.
  std::sort(deletedRanks.begin(), deletedRanks.end(), std::greater<>());
  return std::all_of(deletedRanks.begin(), deletedRanks.end(),
                     [this](int64_t rank) { return closeAfter(rank); });
}

bool RankKeeper::closeGaps(const std::vector<int64_t>& ranks) const {
  int64_t lowered = 0;
  for (size_t i = 1; i < ranks.size(); ++i) {
    const int64_t gap = ranks[i] - ranks[i - 1] - 1;
    if (gap < 1) continue;
    if (!runSql(m_db,
                sqlText("UPDATE JobTable SET Rank = Rank - %lld WHERE Rank >= %lld;",
                        static_cast<long long>(gap), static_cast<long long>(ranks[i] - lowered)),
                m_site))
      return false;
    lowered += gap;
  }
  return true;
}

std::vector<int64_t> missingRanks(std::vector<int64_t> before, std::vector<int64_t> after) {
  std::sort(before.begin(), before.end());
  std::sort(after.begin(), after.end());
  std::vector<int64_t> missing;
  std::set_difference(before.begin(), before.end(), after.begin(), after.end(),
                      std::back_inserter(missing));
  return missing;
}

}  // namespace kxjobstore
