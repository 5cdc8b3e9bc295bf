#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "daemon/Scheduler.h"

namespace xcoded {

// The volume that holds a file; nothing when the file's folder is not there.
std::optional<Volume> volumeOfFile(const std::string& path);

// Memory that is free for new work, in kilobytes; the total memory when the kernel does not
// tell.
int64_t availableMemoryKb();

}  // namespace xcoded
