#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KxResource2.h"

class BoundedRun;

// The external program that knows the GPU cards: asks it and parses its answers. It knows
// nothing of the resource list. Everything the program says is bounded: number and length of
// lines, range of numbers, and the time it may take.
class AcceleratorTool {
 public:
  // Cards taken from one answer; machines have far fewer.
  static constexpr size_t kMaxCards = 32;

  explicit AcceleratorTool(std::string path,
                           std::chrono::milliseconds limit = std::chrono::seconds(15));

  // The usable cards in the order of the query; nothing when the program is missing or its
  // list or query fails. May be called from any thread.
  std::optional<std::vector<KxResource2>> discover() const;

 private:
  struct Answer {
    int result = 1;
    std::string text;
  };
  struct ListedCard;

  static Answer answerOf(BoundedRun& run);
  Answer ask(const std::vector<std::string>& args) const;
  std::vector<Answer> askForEach(const char* option, const std::vector<std::string>& ids) const;
  std::optional<std::vector<ListedCard>> list() const;
  std::optional<std::vector<std::string>> query() const;
  std::vector<KxResource2> usableCards(const std::vector<ListedCard>& listed,
                                       const std::vector<std::string>& ids) const;

  std::string m_path;
  std::chrono::milliseconds m_limit;
};

// One line of the card list.
struct AcceleratorTool::ListedCard {
  std::string id;
  std::string vendor;
  std::string device;
  KxRes2_e type = RES2_NONE;
  int mode = 0;
  std::string devNumber;
};

namespace accelparse {

// The lines of a text without their line ends. Lines above 1,024 bytes are emptied.
std::vector<std::string> lines(const std::string& text);
// Items "key=value" separated by commas, each split at its last "="; blanks around keys and
// values do not count. The last of equal keys wins.
std::map<std::string, std::string> items(const std::string& text);
// Decimal number at the start of a text; 0 when there is none or it does not fit.
int number(const std::string& text);
// N of a line "count=N"; nothing when the line is not of that form.
std::optional<size_t> count(const std::string& line);

}  // namespace accelparse
