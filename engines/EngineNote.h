#pragma once

#include <string>
#include <vector>

// What the engines log comes from pure functions as notes, so that the functions can be
// tested as tables; whoever called them writes the notes to the log.

namespace engines {

// One log message with the function name it is logged under.
struct EngineNote {
  const char* function;
  std::string text;
};

// Writes the notes to the log, in order, at level 5.
void logNotes(const std::vector<EngineNote>& notes);

}  // namespace engines
