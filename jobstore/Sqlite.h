#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "jobstore/LogSite.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kxjobstore {

struct SqliteCloser {
  void operator()(sqlite3* db) const;
};
using SqliteHandle = std::unique_ptr<sqlite3, SqliteCloser>;

using RowCallback = int (*)(void* out, int n, char** values, char** names);

// What a connection may do to its file: read it, change it, or make it too.
enum class SqliteAccess { Read, Change, Create };

// Opens a database file. The handle is set even after a failure, so that its error text can
// be read; the result tells whether it may be used.
bool openSqlite(const std::string& path, SqliteAccess access, SqliteHandle& db);

// The engine's text for the last failure on a connection; also without a connection.
std::string engineError(sqlite3* db);

// A statement built at run time.
std::string sqlText(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Runs SQL text. Empty when it succeeded, otherwise the engine's error text.
std::optional<std::string> trySql(sqlite3* db, const std::string& sql,
                                  RowCallback callback = nullptr, void* out = nullptr);

// Runs SQL text and logs a failure with statement and error text.
bool runSql(sqlite3* db, const std::string& sql, RowCallback callback, void* out,
            LogSite site = LogSite::here());
bool runSql(sqlite3* db, const std::string& sql, LogSite site = LogSite::here());

// First row's "res" column; empty when the statement fails (logged) or yields no row.
std::optional<long long> selectInt(sqlite3* db, const std::string& sql,
                                   LogSite site = LogSite::here());

// Result of an operation of the job store.
constexpr int asResult(bool success) {
  return success ? 0 : 1;
}

// Logs "WHAT:ENGINE ERROR". Always false, so that callers can return it.
bool logEngineFailure(sqlite3* db, const char* what, LogSite site = LogSite::here());

// Makes the statements run while it lives one unit on disk. What they changed stays unless
// rollBack() is called: an operation that fails half-way keeps its earlier steps.
class Savepoint {
 public:
  explicit Savepoint(sqlite3* db);
  ~Savepoint();
  Savepoint(const Savepoint&) = delete;
  Savepoint& operator=(const Savepoint&) = delete;

  void rollBack();
  // Empty when the changes are stored, otherwise the engine's error text.
  std::optional<std::string> release();

 private:
  sqlite3* m_db;
  bool m_open;
};

// Binds the parameters of a prepared statement in order, numbered from 1. After a failure the
// rest is skipped and bound() is false.
class ParameterBinder {
 public:
  explicit ParameterBinder(sqlite3_stmt* statement) : m_statement(statement) {}

  // The text is not copied: it must stay until the statement is reset. An empty one is bound
  // as empty text.
  ParameterBinder& add(const std::string& text);
  ParameterBinder& add(std::string&&) = delete;
  ParameterBinder& add(int64_t number);
  bool bound() const { return m_bound; }

 private:
  void note(int result);

  sqlite3_stmt* m_statement;
  int m_next = 1;
  bool m_bound = true;
};

// One use of a prepared statement: it starts clean and is reset when the use ends, so that no
// read stays open and no parameter is left behind.
class StatementUse {
 public:
  explicit StatementUse(sqlite3_stmt* statement);
  ~StatementUse();
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

  // The parameters, see ParameterBinder.
  template <class... Values>
  bool bind(const Values&... values) {
    (m_parameters.add(values), ...);
    return m_parameters.bound();
  }
  ParameterBinder& parameters() { return m_parameters; }

  // Step once. failed() tells the end from a failure after row() was false.
  bool row();
  bool done();
  bool failed() const { return m_failed; }
  int64_t column(int index) const;
  std::string textColumn(int index) const;

 private:
  int step();

  sqlite3_stmt* m_statement;
  ParameterBinder m_parameters;
  bool m_failed = false;
};

}  // namespace kxjobstore
