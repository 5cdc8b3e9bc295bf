#include "tools/ToolRoot.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>

namespace kxtools {

std::string systemRoot(const std::string& fixedPath) {
  const char* chosen = getenv("KX_ROOT");
  if (chosen != nullptr) return chosen;
  char buffer[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer);
  const std::string own(buffer, length > 0 ? static_cast<size_t>(length) : 0);
  const bool installed =
      own.size() >= fixedPath.size() &&
      own.compare(own.size() - fixedPath.size(), fixedPath.size(), fixedPath) == 0;
  return installed ? own.substr(0, own.size() - fixedPath.size()) : "";
}

}  // namespace kxtools
