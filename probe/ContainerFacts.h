#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What a demuxer says about a file, free of any FFmpeg type and not yet interpreted.

namespace kxprobe {

enum class StreamKind { Video, Audio, Subtitle, Other };

struct Fraction {
  int num = 0;
  int den = 0;
  bool known() const { return num > 0 && den > 0; }
};

struct StreamFacts {
  StreamKind kind = StreamKind::Other;
  int nativeType = -1;    // FFmpeg's media type
  bool coverArt = false;  // an attached picture
  int codecId = 0;        // FFmpeg's numbering
  int profile = 0;
  int level = 0;
  int64_t bitRate = 0;  // bit/s
  int sampleRate = 0;   // Hz
  int channels = 0;
  int width = 0;
  int height = 0;
  Fraction frameRate;
  Fraction sar;
  Fraction dar;
  std::optional<std::string> rotateTag;
  std::optional<int> matrixDegrees;  // clockwise, 0 to 359
  bool matrixMirrors = false;        // the display matrix flips the picture besides
};

struct PlayTime {
  int64_t ms = 0;
  int source = 0;  // KxPlayTime_e
};

struct ContainerFacts {
  std::string demuxer;     // short name
  int64_t durationUs = 0;  // 0 when the container states none
  int64_t bitRate = 0;     // bit/s
  std::vector<StreamFacts> streams;
  PlayTime playTime;
};

}  // namespace kxprobe
