#include "daemon/RequestJson.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace xcoded {
namespace {

constexpr size_t kShownKey = 100;  // bytes of a client's own word in an error text

// Length of a NUL-terminated text, or an error when the NUL is missing.
size_t lengthWithin(const char* text, size_t size, const std::string& what) {
  const size_t length = strnlen(text, size);
  if (length == size) throw RequestError(what + " is not NUL-terminated");
  return length;
}

bool hasControl(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

bool hasDotDot(const std::string& path) {
  return (path + "/").find("/../") != std::string::npos;
}

}  // namespace

int32_t requestNumber(const KxSockData_s& request, size_t block) {
  int32_t value = 0;
  memcpy(&value, request.block[block], sizeof value);
  return value;
}

std::string requestText(const KxSockData_s& request, size_t block) {
  const std::string what = "the text in block " + std::to_string(block);
  const size_t length = lengthWithin(request.block[block], KxSockData_s::kBlockSize, what);
  std::string text(request.block[block], length);
  checkPlain(text, what);
  return text;
}

std::string requestPath(const KxSockData_s& request, size_t block) {
  std::string path = requestText(request, block);
  checkPath(path, "the path in block " + std::to_string(block));
  return path;
}

void checkPlain(const std::string& text, const std::string& what) {
  if (hasControl(text)) throw RequestError(what + " holds control characters");
}

void checkPath(const std::string& path, const std::string& what) {
  checkPlain(path, what);
  if (path.empty() || path.front() != '/') throw RequestError(what + " is not an absolute path");
  if (path.size() >= PATH_MAX) throw RequestError(what + " is too long");
  if (hasDotDot(path)) throw RequestError(what + " holds a \"..\" component");
}

RequestJson::RequestJson(const KxSockData_s& request) : m_object(nlohmann::json::object()) {
  const char* text =
      reinterpret_cast<const char*>(&request) + KxSockData_s::kTextBlock * KxSockData_s::kBlockSize;
  const size_t length = lengthWithin(text, KxSockData_s::kTextSize, "the text in blocks 4-19");
  if (length == 0) return;
  m_object = nlohmann::json::parse(text, text + length, nullptr, false);
  if (m_object.is_discarded()) throw RequestError("the text in blocks 4-19 is not valid JSON");
  if (!m_object.is_object()) throw RequestError("the text in blocks 4-19 is not a JSON object");
}

bool RequestJson::has(const char* key) const {
  return m_object.contains(key);
}

const nlohmann::json* RequestJson::find(const char* key) {
  m_asked.insert(key);
  const auto found = m_object.find(key);
  return found == m_object.end() ? nullptr : &*found;
}

int64_t RequestJson::integer(const char* key, int64_t min, int64_t max) {
  const nlohmann::json* value = find(key);
  const std::string name = std::string("\"") + key + "\"";
  if (value == nullptr) throw RequestError(name + " is missing");
  if (!value->is_number_integer()) throw RequestError(name + " is not an integer");
  const bool tooBig =
      value->is_number_unsigned() && value->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX);
  const int64_t number = tooBig ? 0 : value->get<int64_t>();
  if (tooBig || number < min || number > max) {
    throw RequestError(name + " is not between " + std::to_string(min) + " and " +
                       std::to_string(max));
  }
  return number;
}

int64_t RequestJson::integer(const char* key, int64_t min, int64_t max, int64_t def) {
  return has(key) ? integer(key, min, max) : def;
}

bool RequestJson::flag(const char* key, bool def) {
  const nlohmann::json* value = find(key);
  if (value == nullptr) return def;
  if (!value->is_boolean()) throw RequestError(std::string("\"") + key + "\" is not true or false");
  return value->get<bool>();
}

std::string RequestJson::text(const char* key, size_t maxBytes, const std::string& def) {
  const nlohmann::json* value = find(key);
  if (value == nullptr) return def;
  const std::string name = std::string("\"") + key + "\"";
  if (!value->is_string()) throw RequestError(name + " is not a text");
  std::string text = value->get<std::string>();
  if (text.size() > maxBytes) throw RequestError(name + " is too long");
  checkPlain(text, name);
  return text;
}

std::string RequestJson::path(const char* key) {
  if (!has(key)) throw RequestError(std::string("\"") + key + "\" is missing");
  std::string path = text(key, PATH_MAX - 1, "");
  checkPath(path, std::string("\"") + key + "\"");
  return path;
}

void RequestJson::finish() const {
  for (const auto& [key, value] : m_object.items()) {
    if (m_asked.count(key) == 0)
      throw RequestError("unknown field \"" + key.substr(0, kShownKey) + "\"");
  }
}

}  // namespace xcoded
