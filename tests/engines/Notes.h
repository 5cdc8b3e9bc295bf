#pragma once

#include <string>
#include <vector>

#include "engines/EngineNote.h"

namespace kxtest {

// The texts of the notes that carry the given function name.
inline std::vector<std::string> textsOf(const std::vector<engines::EngineNote>& notes,
                                        const std::string& function) {
  std::vector<std::string> texts;
  for (const engines::EngineNote& note : notes)
    if (note.function == function) texts.push_back(note.text);
  return texts;
}

}  // namespace kxtest
