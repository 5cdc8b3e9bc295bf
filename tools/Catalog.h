#pragma once

#include <sqlite3.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kxtools {

/// One SQLite file of the catalogue. Any number of processes may use it at a time.
class CatalogFile {
 public:
  enum class Durability {
    kPowerLoss,    ///< what was written survives a power failure
    kProcessLoss,  ///< ... survives the end of the process only, which saves waiting for the disk
  };

  /// Opens the file, which is created with its folder and its tables when it is missing.
  /// With kProcessLoss a damaged file is replaced by an empty one.
  CatalogFile(const std::string& file, Durability durability, const char* tables);

  bool isOpen() const { return m_open; }
  /// True when the last operation failed, as against finding nothing to do.
  bool hasFailed() const;
  /// What went wrong last.
  std::string error() const;

 protected:
  struct Closer {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

  Statement prepare(const char* sql) const;
  static bool runToEnd(const Statement& statement);
  sqlite3* database() const { return m_database.get(); }

 private:
  bool open(const std::string& file, Durability durability, const char* tables);
  bool execute(const char* sql) const;
  bool hasTables() const;

  std::unique_ptr<sqlite3, Closer> m_database;
  bool m_open = false;
};

/// Which files wait for a transcode. A mark is written for every file that is queued, so it
/// must not wait for the disk; after a power failure the service marks anew.
class TranscodeMarks : public CatalogFile {
 public:
  explicit TranscodeMarks(const std::string& file);
  /// @param status -2 while a transcode is pending, else 0
  bool set(const std::string& path, int status);
  /// @return 0 for a file that was never marked
  int get(const std::string& path) const;
};

/// The files that the media library knows, and its picture albums.
class PictureCatalog : public CatalogFile {
 public:
  explicit PictureCatalog(const std::string& file);
  /// Makes a file known. @return its id, also when it was known before
  std::optional<long long> addFile(const std::string& path);
  std::optional<long long> findFile(const std::string& path) const;
  /// Adds a known file to the album of a folder, once. @return false for an unknown id
  bool addToAlbum(long long id, const std::string& albumFolder);
  /// Files of an album in the order in which they were added.
  std::vector<std::string> albumFiles(const std::string& albumFolder) const;
};

}  // namespace kxtools
