// The queue of the older generation, 100,000 jobs, taken over; beside plain SQLite copying the
// same rows into the same schema, one insert a row in one transaction.

#include <sqlite3.h>

#include <memory>

#include "KxTransDBMgr.h"
#include "Misc.h"
#include "bench/Bench.h"
#include "host/HostLog.h"

namespace {

constexpr int kRows = 100000;
constexpr double kMostMilliseconds = 10000;

void require(bool met, const std::string& what) {
  if (!met) throw std::runtime_error(what);
}

using Database = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;
using Statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

Database open(const std::string& path) {
  sqlite3* db = nullptr;
  const int result = sqlite3_open(path.c_str(), &db);
  Database owner(db, sqlite3_close);
  require(result == SQLITE_OK, "open " + path);
  return owner;
}

void run(const Database& db, const std::string& sql) {
  require(sqlite3_exec(db.get(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
          sql + ": " + sqlite3_errmsg(db.get()));
}

Statement prepare(const Database& db, const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &statement, nullptr);
  require(result == SQLITE_OK, sql);
  return {statement, sqlite3_finalize};
}

void makeOldQueue(const std::string& path) {
  const Database db = open(path);
  run(db, "CREATE TABLE TranscodeJob (Id INTEGER PRIMARY KEY, FileName TEXT, DestFileName TEXT, "
          "DateAdded INTEGER, DateStart INTEGER, DateFinished INTEGER, Mediatype INTEGER, "
          "Status INTEGER, Inserttype INTEGER, Jobflag INTEGER, Filesize INTEGER, "
          "RotationDegree INTEGER, Duration INTEGER, iWidth INTEGER, iHeight INTEGER)");
  run(db, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
              std::to_string(kRows) +
              ") INSERT INTO TranscodeJob SELECT i, '/share/Public/folder' || (i / 100) || "
              "'/some recording ' || i || '.mkv', '', 1600000000 - i, 0, 0, 1, i % 4, 1, 3, "
              "1000000 + i, 0, 60, 1920, 1080 FROM n");
}

void copyPlainly(const std::string& from, const std::string& to) {
  const Database old = open(from);
  const Database db = open(to);
  run(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; DELETE FROM JobTable; BEGIN");
  const Statement read = prepare(old, "SELECT FileName, DateAdded, Status, Jobflag, Filesize FROM "
                                      "TranscodeJob ORDER BY DateAdded ASC");
  const Statement insert = prepare(db, "INSERT INTO JobTable (SrcPath, DstPath, DateAdd, Status, "
                                       "JobFlag, FileSize, Rank) VALUES (?, '', ?, ?, ?, ?, ?)");
  for (int rank = 1; sqlite3_step(read.get()) == SQLITE_ROW; ++rank) {
    for (int column = 0; column < 5; ++column)
      sqlite3_bind_value(insert.get(), column + 1, sqlite3_column_value(read.get(), column));
    sqlite3_bind_int(insert.get(), 6, rank);
    require(sqlite3_step(insert.get()) == SQLITE_DONE, "insert");
    sqlite3_reset(insert.get());
  }
  run(db, "COMMIT");
}

int measure() {
  const kxbench::Folder folder;
  kxhost::LogSettings log;
  log.file = folder / "log";
  log.standardError = false;
  kxhost::configureLog(log);
  miscSetSystemRoot(folder.path().string());
  const std::string old = folder / "old.db";
  makeOldQueue(old);

  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  require(store->init(folder / "jobs.db") == 0, "init");
  const double ours =
      kxbench::seconds([&] { require(store->import_43x_DB(old) == 0, "import_43x_DB"); });
  long long rows = 0;
  store->selectOneInt("SELECT COUNT(*) AS res FROM JobTable;", rows);
  require(rows == kRows, "not every row arrived");
  store->uninit();
  std::filesystem::copy_file(folder / "jobs.db", folder / "plain.db");
  const double limit = kxbench::seconds([&] { copyPlainly(old, folder / "plain.db"); });

  kxbench::Report report;
  report.time("import of 100,000 jobs", ours * 1000, limit * 1000, kMostMilliseconds);
  return report.exitStatus();
}

}  // namespace

int main() {
  try {
    return measure();
  } catch (const std::exception& error) {
    fprintf(stderr, "import_bench: %s\n", error.what());
    return 2;
  }
}
