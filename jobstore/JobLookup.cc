#include "jobstore/AdHocQuery.h"
#include "jobstore/JobRow.h"

using kxjobstore::LogSite;

namespace {

// One row as the engine's row callback would get it.
KxDBTask currentRow(sqlite3_stmt* statement) {
  const int count = sqlite3_column_count(statement);
  std::vector<char*> values;
  std::vector<char*> names;
  for (int i = 0; i < count; ++i) {
    const unsigned char* value = sqlite3_column_text(statement, i);
    values.push_back(reinterpret_cast<char*>(const_cast<unsigned char*>(value)));
    names.push_back(const_cast<char*>(sqlite3_column_name(statement, i)));
  }
  KxDBTaskParam param = kxjobstore::readJobRow(count, values.data(), names.data());
  KxDBTask task;
  task.init(param);
  return task;
}

template <class Key>
std::vector<KxDBTask> lookUp(sqlite3* db, const char* sql, const Key& key,
                             LogSite site = LogSite::here()) {
  std::vector<KxDBTask> rows;
  const auto read = [&](kxjobstore::StatementUse&, sqlite3_stmt* statement) {
    rows.push_back(currentRow(statement));
  };
  kxjobstore::queryRows(db, site, sql, read, key);
  return rows;
}

}  // namespace

std::vector<KxDBTask> KxTransDBMgr::getDBJobById(int64_t id) {
  return lookUp(m_db, "SELECT * FROM JobTable WHERE Id = ?", id);
}

std::vector<KxDBTask> KxTransDBMgr::getDBJobBySource(const std::string& src) {
  return lookUp(m_db, "SELECT * FROM JobTable WHERE SrcPath = ? ORDER BY Id", src);
}
