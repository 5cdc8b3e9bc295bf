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

// Size in bytes of a regular file that lies below a folder, whose path ends in "/". A disc is
// somebody's data: a link in it may point anywhere, so one that leads out of the folder names
// no file of the disc, as little as a pipe or a device does.
std::optional<long> fileSizeWithin(const std::string& folder, const std::string& name);

// True when what a path stands for exists and lies below the folder, links followed.
bool isWithin(const std::string& folder, const std::string& path);

// Where a kind of disc has its index, from the top of the disc.
struct DiscKind {
  const char* folder;
  const char* index;
};
inline constexpr DiscKind kDvd = {"VIDEO_TS", "VIDEO_TS.IFO"};
inline constexpr DiscKind kBluRay = {"BDMV", "index.bdmv"};

// Path of the index file, in any letter case, of a disc whose top folder is given.
std::optional<std::string> findDiscIndex(const std::string& top, const DiscKind& kind);

}  // namespace kxprobe
