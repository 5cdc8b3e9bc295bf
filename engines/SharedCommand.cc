#include "engines/SharedCommand.h"

#include <algorithm>

namespace engines {
namespace {

using Words = std::vector<std::string>;

// Number of words up to the input, itself included; 0 when there is none.
std::ptrdiff_t inputLength(const Words& command) {
  const auto option = std::ranges::find(command, "-i");
  return std::distance(option, command.end()) < 2 ? 0 : std::distance(command.begin(), option) + 2;
}

}  // namespace

Words sharedCommand(const std::vector<Words>& commands) {
  if (commands.empty()) return {};
  const std::ptrdiff_t length = inputLength(commands.front());
  Words shared(commands.front().begin(), commands.front().begin() + length);
  for (const Words& command : commands) {
    const bool sameInput =
        length > 0 && inputLength(command) == length &&
        std::equal(command.begin(), command.begin() + length, commands.front().begin());
    if (!sameInput) return {};
    shared.insert(shared.end(), command.begin() + length, command.end());
  }
  return shared;
}

}  // namespace engines
