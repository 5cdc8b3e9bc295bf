#pragma once

#include <string>

#include "frame/UniqueFd.h"

namespace xcoded {

// Makes sure that one daemon at a time works on a root. The lock goes with the process,
// whatever ends it, and survives createDaemon().
class InstanceLock {
 public:
  // Takes the lock. On failure error() says why, naming the process that holds it.
  bool take(const std::string& path);
  // Puts the id of this process into the lock file, for people and scripts.
  void writePid() const;
  const std::string& error() const { return m_error; }

 private:
  UniqueFd m_fd;
  std::string m_error;
};

}  // namespace xcoded
