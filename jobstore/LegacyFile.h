#pragma once

#include <optional>
#include <string>

#include "jobstore/Sqlite.h"

namespace kxjobstore {

// The database of the older generation, open for reading. Nothing of the file changes, and
// nothing appears or goes beside it: where the engine would have to write to read it (a write-ahead
// log, a transaction that was never finished), a copy is opened in its place.
class LegacyFile {
 public:
  LegacyFile() = default;
  ~LegacyFile();
  LegacyFile(const LegacyFile&) = delete;
  LegacyFile& operator=(const LegacyFile&) = delete;

  // Once. @return what went wrong; empty when the file may be read
  std::optional<std::string> open(const std::string& path);
  sqlite3* get() const { return m_db.get(); }

 private:
  std::optional<std::string> copy(const std::string& path);

  std::string m_folder;  // of the copy; empty when there is none
  SqliteHandle m_db;
};

}  // namespace kxjobstore
