#include "watch/FolderLookup.h"

#include <algorithm>

#include "Misc.h"

namespace FolderLookup {

std::string normalised(std::string path) {
  path.erase(std::unique(path.begin(), path.end(), miscStripSlashes), path.end());
  return convertFolderPath(path);
}

bool isWithin(const std::string& folder, const std::string& other) {
  return folder.compare(0, other.size(), other) == 0;
}

bool climb(std::string path, const std::function<bool(const std::string& folder)>& accept) {
  for (;;) {
    if (accept(path)) return true;
    const size_t above = path.size() < 2 ? std::string::npos : path.rfind('/', path.size() - 2);
    if (above == std::string::npos) return false;
    path.resize(above + 1);
  }
}

}  // namespace FolderLookup
