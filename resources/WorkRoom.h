#pragma once

#include <cstdint>
#include <string>

namespace runner {

// Sets room aside on the volume of the work folders while it lives, so that jobs that start
// together do not count on the same room. Thread-safe.
class WorkRoom {
 public:
  // @param folder on the volume @param bytes that will be written, 0 or more
  WorkRoom(const std::string& folder, int64_t bytes);
  ~WorkRoom();
  WorkRoom(const WorkRoom&) = delete;
  WorkRoom& operator=(const WorkRoom&) = delete;

  // False when the volume lacks the room; nothing is set aside then.
  bool isGranted() const { return m_bytes >= 0; }

 private:
  int64_t m_bytes = -1;
};

}  // namespace runner
