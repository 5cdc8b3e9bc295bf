#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>

// Walks a folder tree without following links and without holding more than one folder open,
// whatever its depth.
class FolderWalk {
 public:
  struct Visitor {
    // A folder, the top included, is about to be read; false leaves it and what is below it
    // out. The folder ends in "/".
    std::function<bool(const std::string& folder)> enter;
    // A name that the walk should look at; asked before the entry is examined on disk.
    std::function<bool(const std::string& name)> wanted;
    // A regular file. The folder ends in "/".
    std::function<void(const std::string& folder, const std::string& name, const struct stat& info)>
        file;
    // A folder below the top could not be opened; errno says why.
    std::function<void(const std::string& folder)> unreadable;
    // Asked before each folder and each entry; true ends the walk.
    std::function<bool()> stopped;
  };

  // False when the top folder itself cannot be opened. Only the top may be a link.
  static bool walk(const std::string& top, const Visitor& visitor);
};
