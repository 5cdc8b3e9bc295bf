#include "probe/Folders.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace kxprobe {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](char c) { return lower(c); });
  return result;
}

}  // namespace

SplitPath splitPath(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return lower(a) == lower(b);
}

bool endsWithIgnoringCase(std::string_view text, std::string_view ending) {
  return lower(text).ends_with(lower(ending));
}

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  return lower(text).find(lower(part)) != std::string::npos;
}

std::optional<std::vector<std::string>> listFolder(const std::string& folder) {
  std::error_code error;
  std::vector<std::string> names;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error))
    names.push_back(entry->path().filename().string());
  if (error) return std::nullopt;
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::string> findEntry(const std::string& folder, const std::string& name) {
  const auto names = listFolder(folder);
  if (!names) return std::nullopt;
  if (std::binary_search(names->begin(), names->end(), name)) return name;
  const auto found = std::find_if(names->begin(), names->end(), [&](const std::string& entry) {
    return equalsIgnoringCase(entry, name);
  });
  return found == names->end() ? std::nullopt : std::optional(*found);
}

std::optional<long> fileSize(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return static_cast<long>(info.st_size);
}

}  // namespace kxprobe
