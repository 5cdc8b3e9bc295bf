#pragma once

#include <string>
#include <vector>

namespace engines {

// Joins commands of the software encoder that read the same source in the same way into one
// that decodes it once and writes every result, each with the options of its own command.
// Empty when the commands differ up to their input. Pure.
std::vector<std::string> sharedCommand(const std::vector<std::vector<std::string>>& commands);

}  // namespace engines
