#include "jobstore/JobQuery.h"

#include <array>

#include "jobstore/Sqlite.h"

namespace kxjobstore {
namespace {

constexpr size_t kEveryStatus = 4;
constexpr std::array<size_t, 5> kSelectableStatus = {0, 1, 2, 3, 5};

// The status terms stand without parentheses, so an AND behind them binds to the last one
// only; and a media type asked for with every status and any insert type has no WHERE. Both
// stay as they are: clients that need an exact filter ask for one status at a time.
std::string filter(const KxDBGetJobParam& query) {
  std::string text;
  const bool everyStatus = query.flagSet.test(kEveryStatus);
  if (!everyStatus) {
    text = " WHERE ";
    const char* separator = "";
    for (const size_t status : kSelectableStatus) {
      if (!query.flagSet.test(status)) continue;
      text += separator + std::string("Status = ") + std::to_string(status) + " ";
      separator = " OR ";
    }
  }
  if (query.insertType != -1) {
    text += (everyStatus ? " WHERE" : " AND") + std::string(" InsertType = ") +
            std::to_string(query.insertType) + " ";
  }
  if (query.mediaType != 0) text += " AND MediaType = " + std::to_string(query.mediaType) + " ";
  return text;
}

}  // namespace

std::string pageQuery(const KxDBGetJobParam& query) {
  const char* direction = query.isOrderASC ? "ASC" : "DESC";
  return "SELECT * FROM JobTable " + filter(query) +
         sqlText("ORDER BY %s %s , Rank %s LIMIT %d OFFSET %d", query.orderBy.c_str(), direction,
                 direction, query.limit, query.offset);
}

std::string countQuery(const KxDBGetJobParam& query) {
  return "SELECT COUNT(*) AS res FROM JobTable " + filter(query);
}

}  // namespace kxjobstore
