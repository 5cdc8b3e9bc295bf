#pragma once

#include <string>

namespace engines {

// Percent done, 0 to 100, that the log parser reads from an encoder's log. Without a log it is
// `last`, the percentage known so far; a parser that cannot run or answers nonsense gives 0.
// Runs the parser and waits for it.
int readProgress(const std::string& progressLog, int last);

}  // namespace engines
