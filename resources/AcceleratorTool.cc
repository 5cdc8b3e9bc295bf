#include "resources/AcceleratorTool.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "frame/Log.h"
#include "resources/BoundedRun.h"

static constexpr const char* kLogSource = "KxResMgr2";

// Discovery is a step of this operation, and its messages carry that name.
#define LOG_LEVEL_CHECKRES(level, ...)                                                             \
  myDebugUtilWrapperPrint((level), 0, kLogSource, __LINE__, "checkRes", __VA_ARGS__)
#define LOG_CHECKRES(...) KX_LOG_AS("checkRes", __VA_ARGS__)

namespace {

constexpr size_t kMaxLine = 1024;
constexpr size_t kMaxAnswer = 65536;

std::string trimmed(std::string_view text) {
  constexpr const char* kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(kBlanks) - first + 1));
}

// Cuts a text at every separator; a separator at the very end opens no further part.
std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  for (size_t from = 0; from < text.size();) {
    const size_t end = std::min(text.find(separator, from), text.size());
    parts.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return parts;
}

KxRes2_e attachment(const std::string& word) {
  if (word == "external") return RES2_GPU_EXTERNAL;
  if (word == "internal") return RES2_GPU_INTERNAL;
  return RES2_NONE;
}

std::string valueOf(const std::map<std::string, std::string>& items, const char* key) {
  const auto item = items.find(key);
  return item == items.end() ? "" : item->second;
}

std::string describe(const KxResource2& card) {
  return card.id + ":" + card.vendorName + ":" + card.devName + ":" + std::to_string(card.resType) +
         ":" + std::to_string(card.modeSupport) + ":" + card.devNumber;
}

}  // namespace

namespace accelparse {

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result = split(text, '\n');
  for (std::string& line : result) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() > kMaxLine) line.clear();
  }
  return result;
}

std::map<std::string, std::string> items(const std::string& text) {
  std::map<std::string, std::string> result;
  for (const std::string& item : split(text, ',')) {
    const size_t equals = item.rfind('=');
    if (equals == std::string::npos) continue;
    result[trimmed(std::string_view(item).substr(0, equals))] =
        trimmed(std::string_view(item).substr(equals + 1));
  }
  return result;
}

int number(const std::string& text) {
  const std::string digits = trimmed(text);
  int value = 0;
  const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return end.ec == std::errc() ? value : 0;
}

std::optional<size_t> count(const std::string& line) {
  constexpr std::string_view kKey = "count=";
  if (line.compare(0, kKey.size(), kKey) != 0) return std::nullopt;
  const std::string digits = trimmed(std::string_view(line).substr(kKey.size()));
  size_t value = 0;
  const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (end.ec != std::errc() || end.ptr != digits.data() + digits.size()) return std::nullopt;
  return value;
}

}  // namespace accelparse

AcceleratorTool::AcceleratorTool(std::string path, std::chrono::milliseconds limit)
    : m_path(std::move(path)), m_limit(limit) {}

std::optional<std::vector<KxResource2>> AcceleratorTool::discover() const {
  if (access(m_path.c_str(), F_OK) != 0) {
    LOG_CHECKRES("path %s do not exist\n", m_path.c_str());
    return std::nullopt;
  }
  const auto listed = list();
  if (!listed) return std::nullopt;
  const auto ids = query();
  if (!ids) return std::nullopt;
  return usableCards(*listed, *ids);
}

AcceleratorTool::Answer AcceleratorTool::answerOf(BoundedRun& run) {
  Answer answer;
  answer.result = run.wait(answer.text);
  if (answer.text.size() > kMaxAnswer) answer.text.resize(kMaxAnswer);
  return answer;
}

AcceleratorTool::Answer AcceleratorTool::ask(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {m_path};
  argv.insert(argv.end(), args.begin(), args.end());
  BoundedRun run(std::move(argv), m_limit);
  return answerOf(run);
}

// Side by side: a query of a sleeping card may take seconds.
std::vector<AcceleratorTool::Answer>
AcceleratorTool::askForEach(const char* option, const std::vector<std::string>& ids) const {
  std::vector<BoundedRun> runs;
  runs.reserve(ids.size());
  for (const std::string& id : ids)
    runs.emplace_back(std::vector<std::string>{m_path, option, id}, m_limit);
  std::vector<Answer> answers;
  answers.reserve(runs.size());
  for (BoundedRun& run : runs) answers.push_back(answerOf(run));
  return answers;
}

std::optional<std::vector<AcceleratorTool::ListedCard>> AcceleratorTool::list() const {
  const Answer answer = ask({"-l"});
  if (answer.result != 0) {
    LOG_CHECKRES("accelctl list fail");
    return std::nullopt;
  }
  std::vector<ListedCard> cards;
  std::vector<std::string> ids;
  for (const std::string& line : accelparse::lines(answer.text)) {
    std::vector<std::string> fields = split(line, ':');
    fields.resize(5);
    if (fields[0].empty()) continue;
    if (cards.size() == kMaxCards) {
      LOG_CHECKRES("more than %zu cards are listed, the rest is ignored\n", kMaxCards);
      break;
    }
    ids.push_back(fields[0]);
    cards.push_back({fields[0], fields[1], fields[2], attachment(fields[3]),
                     accelparse::number(fields[4]), ""});
  }

  const std::vector<Answer> details = askForEach("-T", ids);
  std::vector<ListedCard> known;
  for (size_t i = 0; i < cards.size(); ++i) {
    if (details[i].result != 0) {
      LOG_LEVEL_CHECKRES(2, "accelctl -T %s fail", ids[i].c_str());
      continue;
    }
    cards[i].devNumber = valueOf(accelparse::items(details[i].text), "devno");
    known.push_back(std::move(cards[i]));
  }
  return known;
}

// The card ids of the query; an id that is missing is empty.
std::optional<std::vector<std::string>> AcceleratorTool::query() const {
  const Answer answer = ask({"-q"});
  if (answer.result != 0) {
    LOG_CHECKRES("accelctl query fail");
    return std::nullopt;
  }
  LOG_CHECKRES("accelctl -q output:%s\n", answer.text.c_str());
  std::vector<std::string> ids = accelparse::lines(answer.text);
  const auto count = ids.empty() ? std::nullopt : accelparse::count(ids.front());
  if (!count) {
    LOG_CHECKRES("accelctl -q does not begin with a count\n");
    return std::nullopt;
  }
  ids.erase(ids.begin());
  if (*count > kMaxCards)
    LOG_CHECKRES("more than %zu cards are reported, the rest is ignored\n", kMaxCards);
  ids.resize(std::min(*count, kMaxCards));
  for (std::string& id : ids) id = trimmed(id);
  return ids;
}

std::vector<KxResource2> AcceleratorTool::usableCards(const std::vector<ListedCard>& listed,
                                                      const std::vector<std::string>& ids) const {
  std::vector<std::string> present;
  for (size_t i = 0; i < ids.size(); ++i) {
    if (ids[i].empty()) {
      LOG_CHECKRES("can't get id of card %d\n", static_cast<int>(i));
    } else {
      present.push_back(ids[i]);
    }
  }

  const std::vector<Answer> answers = askForEach("-s", present);
  std::vector<KxResource2> cards;
  for (size_t i = 0; i < present.size(); ++i) {
    if (answers[i].result != 0) {
      LOG_LEVEL_CHECKRES(2, "get status fail");
      continue;
    }
    LOG_CHECKRES("status:%s\n", answers[i].text.c_str());
    const auto status = accelparse::items(answers[i].text);
    if (valueOf(status, "real_status") != "2" || valueOf(status, "transcode") != "1") continue;
    const auto entry = std::find_if(listed.begin(), listed.end(),
                                    [&](const ListedCard& card) { return card.id == present[i]; });
    if (entry == listed.end()) continue;
    const std::string devNumber = valueOf(status, "devno");
    KxResource2 card;
    if (card.init(entry->id, entry->type, entry->vendor, entry->device, entry->mode,
                  devNumber.empty() ? entry->devNumber : devNumber) != 0)
      continue;
    LOG_CHECKRES("res info:%s\n", describe(card).c_str());
    cards.push_back(std::move(card));
  }
  return cards;
}
