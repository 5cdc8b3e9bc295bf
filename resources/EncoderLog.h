#pragma once

#include <string>

namespace runner {

// What an encoder's log says of its failure, for people: the last line that tells something,
// without progress reports, statistics and addresses. Empty when there is none.
std::string complaintOf(const std::string& logPath);

}  // namespace runner
