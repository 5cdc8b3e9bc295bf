#include "engines/HostFacts.h"

#include <sys/stat.h>

#include <algorithm>
#include <vector>

namespace engines {
namespace {

constexpr size_t kProgramPathLimit = 1023;
constexpr size_t kCodecNameSize = 10;

}  // namespace

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

std::optional<MediaSvcVarInfo> mediaService() {
  std::vector<MediaSvcVarInfo> services;
  if (MyUtil_getMediaSvcVarInfos(services) != 0 || services.empty()) return std::nullopt;
  MediaSvcVarInfo service = services.front();
  service.ffmpegPath.resize(std::min(service.ffmpegPath.size(), kProgramPathLimit));
  return service;
}

std::optional<std::string> codecName(int codecId) {
  char name[kCodecNameSize] = "";
  if (getFFmpegCodecName(codecId, name, sizeof name) != 0 || name[0] == '\0') return std::nullopt;
  return name;
}

}  // namespace engines
