#include "jobstore/Sqlite.h"

#include <sqlite3.h>

#include <cstdarg>
#include <cstdio>

#include "KxTransDBMgr.h"

namespace kxjobstore {

void SqliteCloser::operator()(sqlite3* db) const {
  sqlite3_close(db);
}

namespace {
int openFlags(SqliteAccess access) {
  switch (access) {
  case SqliteAccess::Read:
    return SQLITE_OPEN_READONLY;
  case SqliteAccess::Change:
    return SQLITE_OPEN_READWRITE;
  default:
    return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  }
}
}  // namespace

bool openSqlite(const std::string& path, SqliteAccess access, SqliteHandle& db) {
  sqlite3* raw = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &raw, openFlags(access), nullptr);
  db.reset(raw);
  return result == SQLITE_OK;
}

std::string engineError(sqlite3* db) {
  return db != nullptr ? sqlite3_errmsg(db) : "database is not open";
}

std::string sqlText(const char* format, ...) {
  char buffer[8192];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

std::optional<std::string> trySql(sqlite3* db, const std::string& sql, RowCallback callback,
                                  void* out) {
  char* text = nullptr;
  const int result = sqlite3_exec(db, sql.c_str(), callback, out, &text);
  if (result == SQLITE_OK) return std::nullopt;
  std::string error = text != nullptr ? text : engineError(db);
  sqlite3_free(text);
  return error;
}

bool runSql(sqlite3* db, const std::string& sql, RowCallback callback, void* out, LogSite site) {
  const auto error = trySql(db, sql, callback, out);
  if (!error) return true;
  KX_LOG_SITE(site, "sqlite3_exec '%s' fail\n", sql.c_str());
  KX_LOG_SITE(site, "%s\n", error->c_str());
  return false;
}

bool runSql(sqlite3* db, const std::string& sql, LogSite site) {
  return runSql(db, sql, nullptr, nullptr, site);
}

namespace {
struct FoundInt {
  long long value = 0;
  bool found = false;
};

int foundIntCallback(void* out, int n, char** values, char** names) {
  auto* result = static_cast<FoundInt*>(out);
  result->found = true;
  return KxTransDBMgr::queryOneIntCallBK_(&result->value, n, values, names);
}
}  // namespace

std::optional<long long> selectInt(sqlite3* db, const std::string& sql, LogSite site) {
  FoundInt result;
  if (!runSql(db, sql, foundIntCallback, &result, site) || !result.found) return std::nullopt;
  return result.value;
}

bool logEngineFailure(sqlite3* db, const char* what, LogSite site) {
  KX_LOG_SITE(site, "%s:%s\n", what, engineError(db).c_str());
  return false;
}

Savepoint::Savepoint(sqlite3* db) : m_db(db), m_open(!trySql(db, "SAVEPOINT kx_group")) {}

Savepoint::~Savepoint() {
  release();
}

void Savepoint::rollBack() {
  if (m_open) trySql(m_db, "ROLLBACK TO kx_group");
}

std::optional<std::string> Savepoint::release() {
  if (!m_open) return std::nullopt;
  m_open = false;
  auto error = trySql(m_db, "RELEASE kx_group");
  // An unfinished commit would keep the file locked and swallow every later change.
  if (error && sqlite3_get_autocommit(m_db) == 0) trySql(m_db, "ROLLBACK");
  return error;
}

void ParameterBinder::note(int result) {
  if (result != SQLITE_OK) m_bound = false;
  ++m_next;
}

ParameterBinder& ParameterBinder::add(const std::string& text) {
  if (m_bound) note(sqlite3_bind_text(m_statement, m_next, text.c_str(), -1, SQLITE_STATIC));
  return *this;
}

ParameterBinder& ParameterBinder::add(int64_t number) {
  if (m_bound) note(sqlite3_bind_int64(m_statement, m_next, number));
  return *this;
}

StatementUse::StatementUse(sqlite3_stmt* statement)
    : m_statement(statement), m_parameters(statement) {
  sqlite3_reset(m_statement);
}

StatementUse::~StatementUse() {
  if (m_statement == nullptr) return;
  sqlite3_reset(m_statement);
  sqlite3_clear_bindings(m_statement);
}

int StatementUse::step() {
  const int result = sqlite3_step(m_statement);
  m_failed = result != SQLITE_ROW && result != SQLITE_DONE;
  return result;
}

bool StatementUse::row() {
  return step() == SQLITE_ROW;
}

bool StatementUse::done() {
  return step() == SQLITE_DONE;
}

int64_t StatementUse::column(int index) const {
  return sqlite3_column_int64(m_statement, index);
}

std::string StatementUse::textColumn(int index) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, index));
  return text != nullptr ? text : "";
}

}  // namespace kxjobstore
