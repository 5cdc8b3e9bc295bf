#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Looking around in the folders of a disc structure. Letter case means ASCII case.

namespace kxprobe {

struct SplitPath {
  std::string folder;  // with trailing "/"; empty when the path has no "/"
  std::string name;
};

SplitPath splitPath(const std::string& path);

bool equalsIgnoringCase(std::string_view a, std::string_view b);
bool endsWithIgnoringCase(std::string_view text, std::string_view ending);
bool containsIgnoringCase(std::string_view text, std::string_view part);

// Names of the entries in byte order, so that results do not depend on the file system's
// order; nothing when the folder cannot be read.
std::optional<std::vector<std::string>> listFolder(const std::string& folder);

// Name of the entry that equals `name`, or failing that equals it in another letter case.
std::optional<std::string> findEntry(const std::string& folder, const std::string& name);

// Size in bytes of what the path names, links followed; nothing when stat fails.
std::optional<long> fileSize(const std::string& path);

}  // namespace kxprobe
