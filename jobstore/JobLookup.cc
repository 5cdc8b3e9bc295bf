#include <sqlite3.h>

#include "KxTransDBMgr.h"
#include "jobstore/JobRow.h"
#include "jobstore/Sqlite.h"

using kxjobstore::logEngineFailure;
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
  sqlite3_stmt* prepared = nullptr;
  if (db == nullptr || sqlite3_prepare_v2(db, sql, -1, &prepared, nullptr) != SQLITE_OK) {
    logEngineFailure(db, "Prepare failed", site);
    return rows;
  }
  const KxTransDBSqliteWrapper statement(prepared);
  kxjobstore::StatementUse use(statement.m_statement);
  if (!use.bind(key)) {
    logEngineFailure(db, "Bind failed", site);
    return rows;
  }
  while (use.row()) rows.push_back(currentRow(statement.m_statement));
  if (use.failed()) logEngineFailure(db, "step filed", site);
  return rows;
}

}  // namespace

std::vector<KxDBTask> KxTransDBMgr::getDBJobById(int64_t id) {
  return lookUp(m_db, "SELECT * FROM JobTable WHERE Id = ?", id);
}

std::vector<KxDBTask> KxTransDBMgr::getDBJobBySource(const std::string& src) {
  return lookUp(m_db, "SELECT * FROM JobTable WHERE SrcPath = ? ORDER BY Id", src);
}
