#pragma once

#include <string>

#include "KxDBTask.h"
#include "jobstore/LogSite.h"

namespace kxjobstore {

// Builds a record from one row of `JobTable` or of the older generation's `TranscodeJob`.
// Columns are matched by exact name; an unknown one is logged and ignored.
KxDBTaskParam readJobRow(int n, char** values, char** names, LogSite site = LogSite::here());
Kx43xDBTaskParam readLegacyRow(int n, char** values, char** names, LogSite site = LogSite::here());

// True for the exact name of a column of `JobTable`.
bool isJobColumn(const std::string& name);

}  // namespace kxjobstore
