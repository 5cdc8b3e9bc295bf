#include "jobstore/DatabaseFile.h"

#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "KxTransDBMgr.h"

namespace kxjobstore {
namespace {

constexpr const char* kSchemaVersion = "20180822";
constexpr int kBusyMilliseconds = 10000;

constexpr std::array<const char*, 3> kTables = {
    "CREATE TABLE VersionTable (Version TEXT);",
    "CREATE TABLE JobTable (Id INTEGER PRIMARY KEY,SrcPath TEXT NOT NULL,DstPath TEXT NOT NULL,"
    "DateAdd INTEGER DEFAULT (0),DateStart INTEGER DEFAULT (0),DateFinish INTEGER DEFAULT (0),"
    "Status INTEGER DEFAULT (0),JobFlag INTEGER DEFAULT (0),InsertType INTEGER DEFAULT (0),"
    "FileSize INTEGER DEFAULT (0),Rotation INTEGER DEFAULT (0),Duration INTEGER DEFAULT (0),"
    "Width INTEGER DEFAULT (0),Height INTEGER DEFAULT (0),AudioId INTEGER DEFAULT (0),"
    "SubtitlePath TEXT DEFAULT '',SubtitleId INTEGER DEFAULT (-1),SubtitleSize INTEGER DEFAULT "
    "(0),SubtitleSeek INTEGER DEFAULT (0),SubtitleColor TEXT DEFAULT '',Priority INTEGER DEFAULT "
    "(0),HwStart INTEGER DEFAULT (0),MediaType INTEGER DEFAULT(0),Rank INTEGER NOT NULL,"
    "VideoTrack INTEGER DEFAULT(0));",
    "CREATE TABLE FileTable (Id INTEGER PRIMARY KEY, Filename TEXT NOT NULL, FullPath TEXT NOT "
    "NULL, ModifiedTime INTEGER NOT NULL, Size INTEGER NOT NULL, UNIQUE(Filename,FullPath) );",
};

constexpr LogSite site(int line) {
  return {"init", line};
}
#define INIT_SITE site(__LINE__)

// The library's like(): a plain prefix, byte by byte. The engine's own ignores the case of
// ASCII letters and takes "_" and "%" in a folder's name as wildcards, so that deleting one
// folder would reach into others.
void prefixLike(sqlite3_context* context, int /*n*/, sqlite3_value** args) {
  const auto* pattern = reinterpret_cast<const char*>(sqlite3_value_text(args[0]));
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(args[1]));
  if (pattern == nullptr || text == nullptr) return;  // the result stays NULL
  std::string_view prefix(pattern, static_cast<size_t>(sqlite3_value_bytes(args[0])));
  const std::string_view whole(text, static_cast<size_t>(sqlite3_value_bytes(args[1])));
  if (!prefix.empty() && prefix.back() == '%') prefix.remove_suffix(1);
  sqlite3_result_int(context, whole.starts_with(prefix) ? 1 : 0);
}

// Before the first query: without a time-out a file that somebody else holds for a moment
// would pass for a damaged one and be replaced.
void prepareConnection(sqlite3* db) {
  sqlite3_busy_timeout(db, kBusyMilliseconds);
  const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC;
  if (sqlite3_create_function(db, "like", 2, flags, nullptr, prefixLike, nullptr, nullptr) !=
      SQLITE_OK)
    logEngineFailure(db, "Create like failed", INIT_SITE);
}

// A queue change then costs no disk flush; a power cut may lose the last changes but leaves
// the file sound. A file system without shared memory keeps the plain journal.
void chooseJournal(sqlite3* db) {
  runSql(db, "PRAGMA journal_mode=WAL", INIT_SITE);
  runSql(db, "PRAGMA synchronous=NORMAL", INIT_SITE);
}

bool hasCurrentVersion(sqlite3* db) {
  std::string version;
  return runSql(db, "SELECT * FROM VersionTable", KxTransDBMgr::queryVersionCallBK_, &version,
                INIT_SITE) &&
         version == kSchemaVersion;
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

SqliteHandle openExisting(const std::string& path) {
  SqliteHandle db;
  if (!openSqlite(path, SqliteAccess::Create, db)) {
    KX_LOG_SITE(INIT_SITE, "can not sqlite3_open %s, create a new one\n", path.c_str());
    KX_LOG_SITE(INIT_SITE, "%s\n", engineError(db.get()).c_str());
    return nullptr;
  }
  prepareConnection(db.get());
  if (!hasCurrentVersion(db.get())) return nullptr;
  return db;
}

// The side files of the old database go too: the engine would take them for the new one's.
bool removeDatabase(const std::string& path) {
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
    const std::string file = path + suffix;
    if (remove(file.c_str()) == 0 || errno == ENOENT) continue;
    KX_LOG_SITE(INIT_SITE, "remove database %s fail\n", file.c_str());
    return false;
  }
  return true;
}

bool createSchema(sqlite3* db) {
  Savepoint all(db);
  for (const char* statement : kTables)
    if (!runSql(db, statement, INIT_SITE)) return false;
  if (!runSql(db, sqlText("INSERT INTO %s VALUES(%s);", "VersionTable", kSchemaVersion), INIT_SITE))
    return false;
  const auto error = all.release();
  if (error) KX_LOG_SITE(INIT_SITE, "%s\n", error->c_str());
  return !error;
}

SqliteHandle createNew(const std::string& path) {
  if (!removeDatabase(path)) return nullptr;
  SqliteHandle db;
  if (!openSqlite(path, SqliteAccess::Create, db)) {
    KX_LOG_SITE(INIT_SITE, "create database %s fail\n", path.c_str());
    KX_LOG_SITE(INIT_SITE, "%s\n", engineError(db.get()).c_str());
    return nullptr;
  }
  prepareConnection(db.get());
  if (!createSchema(db.get())) return nullptr;
  return db;
}

}  // namespace

SqliteHandle openJobDatabase(const std::string& path) {
  SqliteHandle db;
  if (exists(path)) db = openExisting(path);
  if (!db) db = createNew(path);
  if (db) chooseJournal(db.get());
  return db;
}

void addIndexes(sqlite3* db) {
  runSql(db, "CREATE INDEX IF NOT EXISTS JobSource ON JobTable(SrcPath)", INIT_SITE);
  // Rank stands there twice because the queue's usual order is "Rank, Rank": an index that
  // names it once leaves the second to a sorter, which reads every row before the page. The
  // state lets a page skip the rows in front of it without looking at them.
  runSql(db, "CREATE INDEX IF NOT EXISTS JobPlace ON JobTable(Rank, Rank, Status)", INIT_SITE);
  runSql(db, "CREATE INDEX IF NOT EXISTS FileFolder ON FileTable(FullPath)", INIT_SITE);
}

}  // namespace kxjobstore
