#pragma once

#include <optional>
#include <string>

namespace kxhost {

/// Reads one key of an ini file: names are case-sensitive, the first match wins, blanks
/// around the value and one pair of quotes are removed. An empty section stands for the keys
/// before any section.
std::optional<std::string> readIniKey(const std::string& file, const std::string& section,
                                      const std::string& key);

/// Writes one key of an ini file, which is created when it is missing. Every other line stays
/// as it is, and so do the owner and the mode of the file; readers see the old or the new
/// file, never a part. @return false, with errno, when nothing was changed
bool writeIniKey(const std::string& file, const std::string& section, const std::string& key,
                 const std::string& value);

}  // namespace kxhost
