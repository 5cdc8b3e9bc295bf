#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kxprobe {

// Play time in milliseconds that the header of an ASF file states; nothing when it states none,
// as live recordings do. The demuxer keeps it back for a file that is shorter than its header
// says, which is the very case where it tells that the file was cut.
std::optional<int64_t> asfPlayTimeMs(const std::string& path);

}  // namespace kxprobe
