#pragma once

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "KxAbstractTranscodeSvr.h"

namespace xcoded {

// A request that cannot be served; what() is the text of the error answer.
class RequestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The int32 at the start of a block.
int32_t requestNumber(const KxSockData_s& request, size_t block);
// The text of one block. Throws RequestError without a NUL or with control characters.
std::string requestText(const KxSockData_s& request, size_t block);
// The same, and it must be an absolute path.
std::string requestPath(const KxSockData_s& request, size_t block);
// Throws RequestError unless a path is absolute, free of control characters and of ".."
// components, and at most 4,095 bytes long. @p what names it in the message.
void checkPath(const std::string& path, const std::string& what);
// Throws RequestError when a text holds control characters.
void checkPlain(const std::string& text, const std::string& what);

// The JSON object of a request. Every field is asked for with its type and range; finish()
// refuses those that nobody asked for. All members throw RequestError.
class RequestJson {
 public:
  // Reads blocks 4-19. An empty text is an empty object.
  explicit RequestJson(const KxSockData_s& request);

  bool has(const char* key) const;
  int64_t integer(const char* key, int64_t min, int64_t max);
  int64_t integer(const char* key, int64_t min, int64_t max, int64_t def);
  bool flag(const char* key, bool def);
  std::string text(const char* key, size_t maxBytes, const std::string& def);
  std::string path(const char* key);
  void finish() const;

 private:
  const nlohmann::json* find(const char* key);

  nlohmann::json m_object;
  std::set<std::string> m_asked;
};

}  // namespace xcoded
