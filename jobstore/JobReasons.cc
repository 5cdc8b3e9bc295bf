#include "jobstore/JobReasons.h"

#include <sqlite3.h>

#include "KxTransDBMgr.h"

namespace kxjobstore {
namespace {

KxTransDBSqliteWrapper prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (db != nullptr) sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
  return KxTransDBSqliteWrapper(statement);
}

bool jobExists(sqlite3* db, int64_t id) {
  const KxTransDBSqliteWrapper statement = prepare(db, "SELECT 1 FROM JobTable WHERE Id = ?");
  StatementUse use(statement.m_statement);
  return use.bind(id) && use.row();
}

}  // namespace

void createReasonTable(sqlite3* db, LogSite site) {
  // Row ids are used again: a text that outlived its job would pass to a later one. The
  // triggers belong to this connection, so that the stored schema of the jobs stays as it is;
  // what others delete meanwhile is caught by the second one and at the next start.
  for (const char* statement :
       {"CREATE TABLE IF NOT EXISTS JobReason (Id INTEGER PRIMARY KEY, Reason TEXT NOT NULL)",
        "CREATE TEMP TRIGGER ForgetReasonOfDeletedJob AFTER DELETE ON main.JobTable BEGIN "
        "DELETE FROM JobReason WHERE Id = OLD.Id; END",
        "CREATE TEMP TRIGGER ForgetReasonOfFormerJob AFTER INSERT ON main.JobTable BEGIN "
        "DELETE FROM JobReason WHERE Id = NEW.Id; END",
        "DELETE FROM JobReason WHERE Id NOT IN (SELECT Id FROM JobTable)"})
    if (!runSql(db, statement, site)) return;
}

bool storeReason(sqlite3* db, int64_t id, const std::string& reason, LogSite site) {
  if (!jobExists(db, id)) return false;
  const KxTransDBSqliteWrapper statement =
      prepare(db, reason.empty() ? "DELETE FROM JobReason WHERE Id = ?"
                                 : "INSERT OR REPLACE INTO JobReason (Id, Reason) VALUES(?, ?)");
  StatementUse use(statement.m_statement);
  if (!(reason.empty() ? use.bind(id) : use.bind(id, reason)))
    return logEngineFailure(db, "Bind failed", site);
  return use.done() || logEngineFailure(db, "step filed", site);
}

std::string readReason(sqlite3* db, int64_t id) {
  const KxTransDBSqliteWrapper statement = prepare(db, "SELECT Reason FROM JobReason WHERE Id = ?");
  StatementUse use(statement.m_statement);
  return use.bind(id) && use.row() ? use.textColumn(0) : std::string();
}

}  // namespace kxjobstore
