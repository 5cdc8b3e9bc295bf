#include "jobstore/AdHocQuery.h"

using kxjobstore::LogSite;
using kxjobstore::queryRows;
using kxjobstore::StatementUse;

std::vector<KxDBMgrFileParam> KxTransDBMgr::getDBFiles(const std::string& fullpath) {
  std::vector<KxDBMgrFileParam> files;
  const auto read = [&](StatementUse& row, sqlite3_stmt*) {
    files.emplace_back(row.textColumn(0), fullpath, row.column(1), row.column(2));
  };
  queryRows(m_db, LogSite::here(),
            "SELECT Filename, ModifiedTime, Size FROM FileTable WHERE FullPath = ?", read,
            fullpath);
  return files;
}

std::vector<std::string> KxTransDBMgr::getDBFolders(const std::string& fullpath) {
  std::vector<std::string> folders;
  const auto read = [&](StatementUse& row, sqlite3_stmt*) { folders.push_back(row.textColumn(0)); };
  // Everything that begins with the path stands between it and the next path of its length.
  std::string end = fullpath;
  if (end.empty() || end.back() != '/') return folders;
  ++end.back();
  queryRows(m_db, LogSite::here(),
            "SELECT DISTINCT FullPath FROM FileTable WHERE FullPath >= ? AND FullPath < ?", read,
            fullpath, end);
  return folders;
}
