#include "tools/AccelDiscovery.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>

namespace kxtools {
namespace {

namespace fs = std::filesystem;

struct Driver {
  const char* name;
  const char* vendor;
};
// Drivers of cards whose encoders are reached through a render node.
constexpr Driver kRenderDrivers[] = {
    {"i915", "Intel"}, {"xe", "Intel"}, {"amdgpu", "AMD"}, {"radeon", "AMD"}};

std::string readLine(const fs::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Fields are separated by ":" in one answer, by "," and "=" in another.
std::string asField(std::string text) {
  for (char& c : text)
    if (c == ':' || c == ',' || c == '=' || static_cast<unsigned char>(c) < ' ') c = ' ';
  return trimmed(text);
}

// "0000:01:00.0" -> "pci-0000-01-00.0"; the NVIDIA tools write the first number with eight digits.
std::string idOfBusAddress(std::string address) {
  address = trimmed(address);
  const size_t colon = address.find(':');
  if (colon != std::string::npos && colon > 4) address.erase(0, colon - 4);
  for (char& c : address)
    c = c == ':' ? '-' : static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return "pci-" + address;
}

bool isCardName(const std::string& name) {
  return name.size() > 4 && name.compare(0, 4, "card") == 0 &&
         std::all_of(name.begin() + 4, name.end(), [](unsigned char c) { return isdigit(c); });
}

std::string renderNodeOf(const fs::path& device) {
  std::error_code failed;
  for (const auto& entry : fs::directory_iterator(device / "drm", failed)) {
    std::string name = entry.path().filename().string();
    if (name.compare(0, 7, "renderD") == 0) return name;
  }
  return {};
}

std::optional<AccelCard> renderCard(const fs::path& device, const AccelSources& sources) {
  std::error_code failed;
  const std::string driver = fs::read_symlink(device / "driver", failed).filename().string();
  const auto* known = std::find_if(std::begin(kRenderDrivers), std::end(kRenderDrivers),
                                   [&](const Driver& row) { return driver == row.name; });
  if (known == std::end(kRenderDrivers)) return std::nullopt;
  AccelCard card;
  card.id = idOfBusAddress(fs::canonical(device, failed).filename().string());
  card.vendor = known->vendor;
  card.device = asField("graphics " + readLine(device / "device"));
  const std::string node = renderNodeOf(device);
  card.devNumber = node.empty() ? "" : sources.devices + "/dri/" + node;
  card.ready = !node.empty() && access(card.devNumber.c_str(), R_OK | W_OK) == 0;
  return card;
}

std::vector<AccelCard> renderCards(const AccelSources& sources) {
  std::vector<AccelCard> cards;
  std::error_code failed;
  for (const auto& entry : fs::directory_iterator(sources.sysfs + "/class/drm", failed)) {
    if (!isCardName(entry.path().filename().string())) continue;
    if (auto card = renderCard(entry.path() / "device", sources)) cards.push_back(*card);
  }
  return cards;
}

std::vector<AccelCard> nvidiaCards(const std::string& list) {
  std::vector<AccelCard> cards;
  std::istringstream lines(list);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string index;
    std::string address;
    std::string name;
    std::getline(fields, index, ',');
    std::getline(fields, address, ',');
    std::getline(fields, name);
    index = trimmed(index);
    const bool isCard =
        !index.empty() &&
        std::all_of(index.begin(), index.end(), [](unsigned char c) { return isdigit(c); }) &&
        address.find(':') != std::string::npos;
    if (isCard)
      cards.push_back({idOfBusAddress(address), "NVIDIA", asField(name), true, 1, index, true});
  }
  return cards;
}

}  // namespace

std::vector<AccelCard> discoverCards(const AccelSources& sources) {
  std::vector<AccelCard> cards = renderCards(sources);
  if (sources.nvidiaList) {
    for (const AccelCard& card : nvidiaCards(sources.nvidiaList().value_or("")))
      cards.push_back(card);
  }
  std::sort(cards.begin(), cards.end(),
            [](const AccelCard& a, const AccelCard& b) { return a.id < b.id; });
  return cards;
}

std::string listLine(const AccelCard& card) {
  return card.id + ":" + card.vendor + ":" + card.device + ":" +
         (card.external ? "external" : "internal") + ":" + std::to_string(card.mode);
}

std::string statusLine(const AccelCard& card) {
  const std::string state = card.ready ? "real_status=2,transcode=1" : "real_status=1,transcode=0";
  return state + ",devno=" + card.devNumber;
}

}  // namespace kxtools
