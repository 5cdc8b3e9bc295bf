#pragma once

#include <cstdint>
#include <string>

#include "jobstore/LogSite.h"

namespace kxjobstore {

// The video track with the largest picture; the asked one for audio files and for files that
// cannot be probed or have no video.
int32_t chooseVideoTrack(const std::string& src, int32_t asked, LogSite site = LogSite::here());

}  // namespace kxjobstore
