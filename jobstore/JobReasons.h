#pragma once

#include <cstdint>
#include <string>

#include "jobstore/Sqlite.h"

namespace kxjobstore {

// Texts that say why a job ended as it did, in a table of their own beside `JobTable`.

// Makes the table and what keeps it in step with the jobs; failures are logged only.
void createReasonTable(sqlite3* db, LogSite site);
// Keeps a text for a job, or forgets it when it is empty. False when there is no such job.
bool storeReason(sqlite3* db, int64_t id, const std::string& reason,
                 LogSite site = LogSite::here());
std::string readReason(sqlite3* db, int64_t id);

}  // namespace kxjobstore
