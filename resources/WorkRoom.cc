#include "resources/WorkRoom.h"

#include <sys/statvfs.h>

#include <mutex>

namespace runner {
namespace {

struct {
  std::mutex mutex;
  int64_t bytes = 0;  // set aside by all
} gRoom;

int64_t freeBytes(const std::string& folder) {
  struct statvfs room {};
  if (statvfs(folder.c_str(), &room) != 0) return -1;
  return static_cast<int64_t>(room.f_frsize) * static_cast<int64_t>(room.f_bavail);
}

}  // namespace

WorkRoom::WorkRoom(const std::string& folder, int64_t bytes) {
  const std::lock_guard<std::mutex> lock(gRoom.mutex);
  if (freeBytes(folder) - gRoom.bytes < bytes) return;
  m_bytes = bytes;
  gRoom.bytes += bytes;
}

WorkRoom::~WorkRoom() {
  if (m_bytes < 0) return;
  const std::lock_guard<std::mutex> lock(gRoom.mutex);
  gRoom.bytes -= m_bytes;
}

}  // namespace runner
