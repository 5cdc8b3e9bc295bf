// Feeds arbitrary bytes as names into the lists of the service and reads every page back: each
// must be valid JSON in valid UTF-8 that fits its record, and together they hold every row.

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "frame/AnswerRecord.h"
#include "frame/StatusRows.h"

namespace {

// Takes texts of a length that the input itself says from its front.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return m_rest.empty(); }
  uint8_t byte() {
    if (m_rest.empty()) return 0;
    const auto value = static_cast<uint8_t>(m_rest.front());
    m_rest.erase(0, 1);
    return value;
  }
  std::string text() {
    const size_t length = byte() * size_t{32};
    std::string taken = m_rest.substr(0, length);
    m_rest.erase(0, taken.size());
    return taken;
  }

 private:
  std::string m_rest;
};

void require(bool condition) {
  if (!condition) abort();
}

KxResource2 resourceFrom(Input& input) {
  KxResource2 resource;
  resource.init(input.text(), static_cast<KxRes2_e>(input.byte()), input.text(), input.text(),
                input.byte(), input.text());
  KxRegInfo info;
  info.m_username = input.text();
  info.m_srcPath = input.text();
  KxRegister user;
  user.init(resource.resType, resource.id, static_cast<KxRegJobType_e>(1), input.byte(), info);
  resource.reg.push_back(user);
  return resource;
}

void checkPages(const std::vector<std::string>& rows) {
  for (size_t next = 0; next < rows.size();) {
    const auto page = statusrows::page(rows, static_cast<int32_t>(next));
    KxSockData_s request{};
    AnswerRecord answer(request);
    answer.text(page.text);
    const char* text = answer.record().block[KxSockData_s::kTextBlock];
    require(memchr(text, '\0', KxSockData_s::kTextSize) != nullptr);
    require(page.total == static_cast<int32_t>(rows.size()) && page.count > 0);
    const auto parsed = nlohmann::json::parse(text);  // throws on anything invalid
    require(parsed.size() == static_cast<size_t>(page.count));
    next += static_cast<size_t>(page.count);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  std::vector<KxResource2> resources;
  while (!input.empty() && resources.size() < 256) resources.push_back(resourceFrom(input));
  checkPages(statusrows::ofResources(resources));
  checkPages(statusrows::ofRegistrations(resources));
  return 0;
}
