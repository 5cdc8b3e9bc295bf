#pragma once

#include <string>
#include <vector>

#include "KxHostPlatform.h"
#include "KxTransFileConfig.h"

// The XML file of the watched folders: reading, migrating and writing it safely.
//
// A new version is written beside the file under the name "FILE.new", the old one is removed,
// and the new one takes its name. Whatever ends the process in between, recover() finds a
// complete version.
namespace FolderFile {

inline constexpr const char* kRoot = "XCODESVR";

XMLNode emptyDocument();
void append(XMLNode& root, const KxTransFileSetting& setting);
// The complete entries of a document; incomplete ones are left out.
std::vector<KxTransFileSetting> settingsOf(const XMLNode& root);
// A new document with the folders that the media library's folder file names; an empty one
// when there is no such file.
XMLNode migrated(const std::string& mediaLibraryFile);

// Makes the file readable again from what is on disk, and removes what a killed writer left
// behind. A damaged file is kept aside first. False when there is no version to be had; then
// the name is free, unless the damaged file could not be moved.
bool recover(const std::string& path);
// Writes a file that is not there yet. 0 on success, 1 on failure.
int write(const std::string& path, const XMLNode& root);
// Replaces the file; the old one goes only when the new one is complete on disk.
int replace(const std::string& path, const XMLNode& root);
bool exists(const std::string& path);

}  // namespace FolderFile
