#include "host/IniFile.h"

#define SI_NO_CONVERSION  // plain bytes; wide characters are not used
#include <SimpleIni.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "KxHostPlatform.h"
#include "host/AtomicFile.h"

namespace kxhost {
namespace {

constexpr size_t kMaxIniBytes = 4 << 20;
constexpr std::string_view kBlanks = " \t\r\n\v\f";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view unquoted(std::string_view text) {
  const bool quoted = text.size() >= 2 && text.front() == text.back() &&
                      (text.front() == '"' || text.front() == '\'');
  return quoted ? text.substr(1, text.size() - 2) : text;
}

std::vector<std::string> splitLines(const std::string& content) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < content.size()) {
    const size_t end = std::min(content.find('\n', start), content.size());
    lines.push_back(content.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

bool isSectionLine(std::string_view line) {
  return line.size() >= 2 && line.front() == '[' && line.find(']') != std::string_view::npos;
}

std::string_view sectionName(std::string_view line) {
  return trimmed(line.substr(1, line.find(']') - 1));
}

bool isCommentLine(std::string_view line) {
  return line.empty() || line.front() == ';' || line.front() == '#';
}

// Where a key stands, or where it has to be inserted.
struct KeyPlace {
  std::optional<size_t> keyLine;
  std::optional<size_t> sectionEnd;  // the line after the last used one of the section
};

KeyPlace findKey(const std::vector<std::string>& lines, std::string_view section,
                 std::string_view key) {
  KeyPlace place;
  bool inside = section.empty();
  if (inside) place.sectionEnd = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string_view line = trimmed(lines[i]);
    if (isSectionLine(line)) {
      inside = sectionName(line) == section;
      if (inside) place.sectionEnd = i + 1;
      continue;
    }
    if (!inside || isCommentLine(line)) continue;
    place.sectionEnd = i + 1;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || trimmed(line.substr(0, equals)) != key) continue;
    place.keyLine = i;
    return place;
  }
  return place;
}

std::string withKey(const std::string& content, const std::string& section, const std::string& key,
                    const std::string& value) {
  std::vector<std::string> lines = splitLines(content);
  const std::string keyLine = key + "=" + value;
  const KeyPlace place = findKey(lines, section, key);
  if (place.keyLine) {
    lines[*place.keyLine] = keyLine;
  } else if (place.sectionEnd) {
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(*place.sectionEnd), keyLine);
  } else {
    lines.push_back("[" + section + "]");
    lines.push_back(keyLine);
  }
  std::string result;
  for (const std::string& line : lines) result += line + "\n";
  return result;
}

// A configuration file may be a link into another place; the link is to stay.
std::string resolvedPath(const std::string& file) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(file.c_str(), nullptr), &free);
  return resolved ? resolved.get() : file;
}

// One writer at a time; the file is read, changed and replaced under it.
std::mutex gWriteMutex;

}  // namespace

std::optional<std::string> readIniKey(const std::string& file, const std::string& section,
                                      const std::string& key) {
  const std::optional<std::string> content = readWholeFile(file, kMaxIniBytes);
  if (!content) return std::nullopt;
  CSimpleIniCaseA ini(false, true, false);
  if (ini.LoadData(content->data(), content->size()) < 0) return std::nullopt;
  const char* value = ini.GetValue(section.c_str(), key.c_str(), nullptr);
  if (value == nullptr) return std::nullopt;
  return std::string(unquoted(trimmed(value)));
}

bool writeIniKey(const std::string& file, const std::string& section, const std::string& key,
                 const std::string& value) {
  const std::lock_guard<std::mutex> lock(gWriteMutex);
  const std::string path = resolvedPath(file);
  FileIdentity identity;
  struct stat info = {};
  if (stat(path.c_str(), &info) == 0) identity = {info.st_mode & 07777, info.st_uid, info.st_gid};
  const std::optional<std::string> content = readWholeFile(path, kMaxIniBytes);
  if (!content && errno != ENOENT) return false;
  return replaceFile(path, withKey(content.value_or(""), section, key, value), identity);
}

}  // namespace kxhost

int MyUtil_GetKeyStr(const char* section, const char* key, const char* def, char* buf, int size,
                     const char* file) {
  if (buf == nullptr || size <= 0) return 0;
  std::optional<std::string> value;
  if (key != nullptr && file != nullptr)
    value = kxhost::readIniKey(file, section == nullptr ? "" : section, key);
  const std::string text = value.value_or(def == nullptr ? "" : def);
  const size_t length = std::min(text.size(), static_cast<size_t>(size) - 1);
  memcpy(buf, text.data(), length);
  buf[length] = '\0';
  return value ? 1 : 0;
}

int MyUtil_GetKeyInt(const char* section, const char* key, int def, const char* file) {
  if (key == nullptr || file == nullptr) return def;
  const auto value = kxhost::readIniKey(file, section == nullptr ? "" : section, key);
  if (!value) return def;
  char* end = nullptr;
  const long number = strtol(value->c_str(), &end, 10);
  if (end == value->c_str()) return def;
  return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}

int MyUtil_SetKeyInt(const char* section, const char* key, int value, const char* file) {
  if (key == nullptr || *key == '\0' || file == nullptr) return 0;
  const bool done =
      kxhost::writeIniKey(file, section == nullptr ? "" : section, key, std::to_string(value));
  return done ? 1 : 0;
}
