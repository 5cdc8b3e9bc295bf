#include "jobstore/LegacyFile.h"

#include <sqlite3.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace kxjobstore {
namespace {

namespace fs = std::filesystem;

// What belongs to a database beside its file and is not made anew from it.
constexpr std::array<const char*, 2> kSideFiles = {"-wal", "-journal"};
constexpr const char* kCopyName = "/copy.db";

bool hasContents(const std::string& path) {
  std::error_code error;
  const auto size = fs::file_size(path, error);
  return !error && size > 0;
}

// The head of the file says how its changes are written.
bool hasWriteAheadLog(const std::string& path) {
  constexpr size_t kFormatVersions = 18;
  std::array<char, kFormatVersions + 2> head{};
  std::ifstream file(path, std::ios::binary);
  file.read(head.data(), head.size());
  return file && (head[kFormatVersions] == 2 || head[kFormatVersions + 1] == 2);
}

bool wouldBeWritten(const std::string& path) {
  if (hasWriteAheadLog(path)) return true;
  for (const char* suffix : kSideFiles)
    if (hasContents(path + suffix)) return true;
  return false;
}

}  // namespace

LegacyFile::~LegacyFile() {
  m_db.reset();
  std::error_code ignored;
  if (!m_folder.empty()) fs::remove_all(m_folder, ignored);
}

std::optional<std::string> LegacyFile::open(const std::string& path) {
  const bool isCopied = wouldBeWritten(path);
  if (isCopied) {
    if (auto error = copy(path)) return error;
  }
  const bool isOpen = isCopied ? openSqlite(m_folder + kCopyName, SqliteAccess::Change, m_db)
                               : openSqlite(path, SqliteAccess::Read, m_db);
  if (!isOpen) return engineError(m_db.get());
  // The table is asked for by its name, which a view without an end could have as well.
  sqlite3_db_config(m_db.get(), SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_db_config(m_db.get(), SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  return std::nullopt;
}

std::optional<std::string> LegacyFile::copy(const std::string& path) {
  std::error_code error;
  std::string folder = (fs::temp_directory_path(error) / "xcode_import_XXXXXX").string();
  if (error) return error.message();
  if (mkdtemp(folder.data()) == nullptr) return strerror(errno);
  m_folder = folder;
  fs::copy_file(path, m_folder + kCopyName, error);
  for (const char* suffix : kSideFiles) {
    if (!error && hasContents(path + suffix))
      fs::copy_file(path + suffix, m_folder + kCopyName + suffix, error);
  }
  if (error) return error.message();
  return std::nullopt;
}

}  // namespace kxjobstore
