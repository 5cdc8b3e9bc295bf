#pragma once

#include <string>

namespace kxjobstore {

constexpr int kMarkQueued = -2;  // a transcode of the file is pending
constexpr int kMarkNone = 0;

// Tells the media library whether a transcode of a source is pending. Blocks until its
// command has ended; a failure is logged only.
void updateMLDBTranscodeStatus(const std::string& src, int value);

}  // namespace kxjobstore
