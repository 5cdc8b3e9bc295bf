#pragma once

#include <functional>
#include <string>

// Which watched folder a path belongs to. Pure functions.
namespace FolderLookup {

// Runs of "/" collapsed to one, and a "/" at the end.
std::string normalised(std::string path);

// True when a folder is the other or lies in it; both normalised. "/share/ab/" is not in
// "/share/a/".
bool isWithin(const std::string& folder, const std::string& other);

// Tries a normalised path and then the folders above it, the longest first, until one is
// accepted. True when one was.
bool climb(std::string path, const std::function<bool(const std::string& folder)>& accept);

}  // namespace FolderLookup
