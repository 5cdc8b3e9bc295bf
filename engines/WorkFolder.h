#pragma once

#include <string>

namespace engines {

// Folder below the media data directory that holds the service's work files, with
// trailing "/". Empty when there is no such directory; logged as "init".
std::string transcodeFolder();
// The same without a word in the log.
std::string findTranscodeFolder();

// Makes a work folder of the given name, readable by the service only. Returns its path
// with trailing "/", or an empty string when the name is taken or the folder cannot be
// made; logged as "init".
std::string makeWorkFolder(const std::string& parent, const std::string& name);

}  // namespace engines
