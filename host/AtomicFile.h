#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace kxhost {

/// What a file that is replaced must look like afterwards.
struct FileIdentity {
  mode_t mode = 0644;
  std::optional<uid_t> owner;  ///< unset: the writing process
  std::optional<gid_t> group;
};

/// Whole content of a regular file of at most @p limit bytes; nothing, with errno, otherwise.
std::optional<std::string> readWholeFile(const std::string& path, size_t limit);

/// Replaces a file in one step: whoever reads it sees the old or the new content, also after
/// a crash. @return false, with errno, when the file is unchanged
bool replaceFile(const std::string& path, const std::string& content, const FileIdentity& identity);

}  // namespace kxhost
