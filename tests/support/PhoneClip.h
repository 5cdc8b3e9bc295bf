#pragma once

#include <string>

namespace kxtest {

// Makes a video with the sound of old phones: AMR, five of its frames in each packet; noise
// without a pause. A Matroska file. False when it cannot be written.
bool makePhoneClip(const std::string& path, int seconds);

}  // namespace kxtest
