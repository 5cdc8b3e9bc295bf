#include "tests/support/OtherConnection.h"

#include <stdexcept>

namespace {

sqlite3* openOrThrow(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
    sqlite3_close(db);
    throw std::runtime_error("cannot open " + path);
  }
  return db;
}

int collectRow(void* out, int n, char** values, char** /*names*/) {
  std::string row;
  for (int i = 0; i < n; ++i)
    row += std::string(i > 0 ? "|" : "") + (values[i] != nullptr ? values[i] : "NULL");
  static_cast<std::vector<std::string>*>(out)->push_back(row);
  return 0;
}

}  // namespace

OtherConnection::OtherConnection(const std::string& path)
    : m_db(openOrThrow(path), sqlite3_close) {}

void OtherConnection::run(const std::string& sql) const {
  if (sqlite3_exec(m_db.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    throw std::runtime_error(sql + ": " + sqlite3_errmsg(m_db.get()));
}

std::vector<std::string> OtherConnection::rows(const std::string& sql) const {
  std::vector<std::string> result;
  if (sqlite3_exec(m_db.get(), sql.c_str(), collectRow, &result, nullptr) != SQLITE_OK)
    throw std::runtime_error(sql + ": " + sqlite3_errmsg(m_db.get()));
  return result;
}

std::string OtherConnection::value(const std::string& sql) const {
  const auto all = rows(sql);
  return all.size() == 1 ? all[0] : std::to_string(all.size()) + " rows";
}
