#include "tools/Catalog.h"

#include <filesystem>
#include <system_error>

namespace kxtools {
namespace {

constexpr int kBusyMilliseconds = 10000;
constexpr long long kSchema = 1;

constexpr const char* kMarkTables =
    "CREATE TABLE IF NOT EXISTS Mark (Path TEXT PRIMARY KEY, TranscodeStatus INTEGER NOT NULL)"
    " WITHOUT ROWID;";
constexpr const char* kPictureTables =
    "CREATE TABLE IF NOT EXISTS Object (Id INTEGER PRIMARY KEY, Path TEXT NOT NULL UNIQUE);"
    "CREATE TABLE IF NOT EXISTS AlbumEntry (Id INTEGER PRIMARY KEY, Album TEXT NOT NULL,"
    " Object INTEGER NOT NULL REFERENCES Object(Id), UNIQUE (Album, Object));";

// Each run of the command is a process that writes one row and ends, so the rollback journal
// is used: a write-ahead log would be read, and copied back, by every one of them.
const char* journalOf(CatalogFile::Durability durability) {
  return durability == CatalogFile::Durability::kPowerLoss
             ? "PRAGMA journal_mode=TRUNCATE; PRAGMA synchronous=FULL;"
             : "PRAGMA journal_mode=TRUNCATE; PRAGMA synchronous=OFF;";
}

void bindText(const sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(const_cast<sqlite3_stmt*>(statement), index, text.data(),
                    static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* statement, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return text == nullptr ? std::string() : text;
}

}  // namespace

CatalogFile::CatalogFile(const std::string& file, Durability durability, const char* tables) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
  m_open = open(file, durability, tables);
  const int code = sqlite3_errcode(m_database.get());
  const bool damaged = !m_open && (code == SQLITE_CORRUPT || code == SQLITE_NOTADB);
  if (!damaged || durability == Durability::kPowerLoss) return;
  m_database.reset();
  std::filesystem::remove(file, ignored);
  std::filesystem::remove(file + "-journal", ignored);
  m_open = open(file, durability, tables);
}

bool CatalogFile::open(const std::string& file, Durability durability, const char* tables) {
  sqlite3* opened = nullptr;
  const int result =
      sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  m_database.reset(opened);
  if (result != SQLITE_OK) return false;
  sqlite3_busy_timeout(opened, kBusyMilliseconds);
  if (!execute(journalOf(durability))) return false;
  if (hasTables()) return true;
  const std::string create =
      std::string("BEGIN IMMEDIATE;") + tables + "PRAGMA user_version=1; COMMIT;";
  return sqlite3_errcode(opened) == SQLITE_OK && execute(create.c_str());
}

bool CatalogFile::hasFailed() const {
  const int code = sqlite3_errcode(m_database.get());
  return code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE;
}

std::string CatalogFile::error() const {
  return m_database ? sqlite3_errmsg(m_database.get()) : "out of memory";
}

bool CatalogFile::execute(const char* sql) const {
  return sqlite3_exec(m_database.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool CatalogFile::hasTables() const {
  const Statement version = prepare("PRAGMA user_version");
  return version && sqlite3_step(version.get()) == SQLITE_ROW &&
         sqlite3_column_int64(version.get(), 0) == kSchema;
}

CatalogFile::Statement CatalogFile::prepare(const char* sql) const {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(m_database.get(), sql, -1, &statement, nullptr);
  return Statement(statement);
}

bool CatalogFile::runToEnd(const Statement& statement) {
  if (!statement) return false;
  int result = sqlite3_step(statement.get());
  while (result == SQLITE_ROW) result = sqlite3_step(statement.get());
  return result == SQLITE_DONE;
}

TranscodeMarks::TranscodeMarks(const std::string& file)
    : CatalogFile(file, Durability::kProcessLoss, kMarkTables) {}

bool TranscodeMarks::set(const std::string& path, int status) {
  const Statement statement = prepare("INSERT INTO Mark (Path, TranscodeStatus) VALUES (?1, ?2)"
                                      " ON CONFLICT (Path) DO UPDATE SET TranscodeStatus = ?2");
  bindText(statement.get(), 1, path);
  sqlite3_bind_int(statement.get(), 2, status);
  return runToEnd(statement);
}

int TranscodeMarks::get(const std::string& path) const {
  const Statement statement = prepare("SELECT TranscodeStatus FROM Mark WHERE Path = ?1");
  bindText(statement.get(), 1, path);
  const bool found = statement && sqlite3_step(statement.get()) == SQLITE_ROW;
  return found ? sqlite3_column_int(statement.get(), 0) : 0;
}

PictureCatalog::PictureCatalog(const std::string& file)
    : CatalogFile(file, Durability::kPowerLoss, kPictureTables) {}

std::optional<long long> PictureCatalog::addFile(const std::string& path) {
  if (const auto known = findFile(path)) return known;
  const Statement statement = prepare("INSERT OR IGNORE INTO Object (Path) VALUES (?1)");
  bindText(statement.get(), 1, path);
  if (!runToEnd(statement)) return std::nullopt;
  return findFile(path);
}

std::optional<long long> PictureCatalog::findFile(const std::string& path) const {
  const Statement statement = prepare("SELECT Id FROM Object WHERE Path = ?1");
  bindText(statement.get(), 1, path);
  if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int64(statement.get(), 0);
}

bool PictureCatalog::addToAlbum(long long id, const std::string& albumFolder) {
  const Statement statement =
      prepare("INSERT INTO AlbumEntry (Album, Object) SELECT ?1, Id FROM Object WHERE Id = ?2"
              " ON CONFLICT (Album, Object) DO UPDATE SET Object = excluded.Object");
  bindText(statement.get(), 1, albumFolder);
  sqlite3_bind_int64(statement.get(), 2, id);
  return runToEnd(statement) && sqlite3_changes(database()) == 1;
}

std::vector<std::string> PictureCatalog::albumFiles(const std::string& albumFolder) const {
  const Statement statement =
      prepare("SELECT Path FROM AlbumEntry JOIN Object ON Object.Id = AlbumEntry.Object"
              " WHERE Album = ?1 ORDER BY AlbumEntry.Id");
  bindText(statement.get(), 1, albumFolder);
  std::vector<std::string> files;
  while (statement && sqlite3_step(statement.get()) == SQLITE_ROW)
    files.push_back(columnText(statement.get(), 0));
  return files;
}

}  // namespace kxtools
