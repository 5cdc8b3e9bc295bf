#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace runner {

// When the pictures of a file are shown.
struct VideoTimes {
  // Pictures a second that the encoder makes of the file when it is not told.
  int rateNum = 0;
  int rateDen = 1;
  std::vector<double> seconds;  // from the start of the file, in the order of the packets
};

// Reads every packet of the first video stream. Nothing when the file cannot be read to its
// end, a picture has no time, is hidden or is not complete, or goOn() turned false.
std::optional<VideoTimes> readVideoTimes(const std::string& path,
                                         const std::function<bool()>& goOn);

// Pictures that the head of a file names for its first video stream; 0 when it names none.
int64_t statedPictures(const std::string& path);

}  // namespace runner
