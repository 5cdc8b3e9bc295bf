#pragma once

#include <string>

#include "jobstore/Sqlite.h"

namespace kxjobstore {

// Opens the job database at a path, or makes a new one when the file is absent, unreadable or
// of another schema version; what it held is lost then. Empty on failure. Logs as "init".
SqliteHandle openJobDatabase(const std::string& path);

// Indexes for the look-ups by source and by rank; failures are logged only.
void addIndexes(sqlite3* db);

}  // namespace kxjobstore
