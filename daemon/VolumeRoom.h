#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "daemon/Scheduler.h"

namespace xcoded {

// The volume that holds a file; nothing when the file's folder is not there.
std::optional<Volume> volumeOfFile(const std::string& path);

// Why a job cannot start for want of room on the volume of its source; empty when there is
// enough, or when the volume cannot be found: then the job fails by itself and says why.
std::string roomFault(const KxDBTaskParam& job);

// The volume of the work folders while long videos go by pieces (key SEGMENT).
std::optional<Volume> volumeOfPieces();

// Memory that is free for new work, in kilobytes; the total memory when the kernel does not
// tell.
int64_t availableMemoryKb();

}  // namespace xcoded
