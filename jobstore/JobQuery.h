#pragma once

#include <string>

#include "KxDBTask.h"

namespace kxjobstore {

constexpr int kMaxQueryRows = 1000;

// SQL text of a page of the queue, and of the number of rows that match the same filter.
std::string pageQuery(const KxDBGetJobParam& query);
std::string countQuery(const KxDBGetJobParam& query);

}  // namespace kxjobstore
