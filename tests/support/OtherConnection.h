#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

// A connection of the test's own to a database file.
class OtherConnection {
 public:
  explicit OtherConnection(const std::string& path);

  // Runs statements; throws when the engine refuses them.
  void run(const std::string& sql) const;
  // The rows of a query, columns joined by "|".
  std::vector<std::string> rows(const std::string& sql) const;
  std::string value(const std::string& sql) const;

 private:
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> m_db;
};
