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

bool isWithin(const std::string& folder, const std::string& path) {
  std::error_code error;
  const std::string base = fs::canonical(folder, error).string();
  if (error) return false;
  const std::string target = fs::canonical(path, error).string();
  return !error && target.starts_with(base.ends_with('/') ? base : base + "/");
}

std::optional<long> fileSizeWithin(const std::string& folder, const std::string& name) {
  struct stat info {};
  const std::string path = folder + name;
  if (!isWithin(folder, path) || stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    return std::nullopt;
  return static_cast<long>(info.st_size);
}

std::optional<std::string> findDiscIndex(const std::string& top, const DiscKind& kind) {
  const std::string base = top.ends_with('/') ? top : top + "/";
  const auto folder = findEntry(base, kind.folder);
  if (!folder || !isWithin(base, base + *folder)) return std::nullopt;
  const std::string path = base + *folder + "/";
  const auto index = findEntry(path, kind.index);
  if (!index) return std::nullopt;
  return path + *index;
}

}  // namespace kxprobe
