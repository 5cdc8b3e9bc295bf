#pragma once

#include <sqlite3.h>

#include <functional>
#include <string>

#include "KxTransDBMgr.h"
#include "jobstore/Sqlite.h"

namespace kxjobstore {

// Prepares a query, binds its keys and hands every row to a reader. Failures are logged.
template <class... Keys>
void queryRows(sqlite3* db, LogSite site, const char* sql,
               const std::function<void(StatementUse& row, sqlite3_stmt* statement)>& read,
               const Keys&... keys) {
  sqlite3_stmt* prepared = nullptr;
  if (db == nullptr || sqlite3_prepare_v2(db, sql, -1, &prepared, nullptr) != SQLITE_OK) {
    logEngineFailure(db, "Prepare failed", site);
    return;
  }
  const KxTransDBSqliteWrapper statement(prepared);
  StatementUse use(statement.m_statement);
  if (!use.bind(keys...)) {
    logEngineFailure(db, "Bind failed", site);
    return;
  }
  while (use.row()) read(use, statement.m_statement);
  if (use.failed()) logEngineFailure(db, "step filed", site);
}

}  // namespace kxjobstore
