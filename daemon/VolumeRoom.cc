#include "daemon/VolumeRoom.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <fstream>

#include "KxHostPlatform.h"
#include "Misc.h"

namespace xcoded {

std::optional<Volume> volumeOfFile(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  struct stat info {};
  struct statvfs room {};
  if (stat(folder.c_str(), &info) != 0 || statvfs(folder.c_str(), &room) != 0) return std::nullopt;
  return Volume{info.st_dev,
                static_cast<int64_t>(room.f_frsize) * static_cast<int64_t>(room.f_bavail)};
}

std::string roomFault(const KxDBTaskParam& job) {
  const std::optional<Volume> volume = volumeOfFile(job.src);
  const int64_t needed = estimateRoom(job);
  if (!volume || volume->freeBytes >= needed) return "";
  const auto megabytes = [](int64_t bytes) { return std::to_string(bytes >> 20) + " MB"; };
  return "room on its volume: " + megabytes(needed) + " may be needed, " +
         megabytes(volume->freeBytes) + " are free";
}

std::optional<Volume> volumeOfPieces() {
  const std::string file = miscSystemPath("/etc/config/medialibrary.conf");
  std::string data;
  if (MyUtil_GetKeyInt("TRANSCODESVR", "SEGMENT", 0, file.c_str()) != 1 ||
      miscGetHDDPath(data) != 0)
    return std::nullopt;
  return volumeOfFile(convertFolderPath(data));
}

int64_t availableMemoryKb() {
  std::ifstream meminfo("/proc/meminfo");
  std::string name;
  int64_t value = 0;
  std::string unit;
  while (meminfo >> name >> value >> unit)
    if (name == "MemAvailable:") return value;
  return MyUtil_GetTotalMem();
}

}  // namespace xcoded
