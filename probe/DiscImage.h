#pragma once

#include <cstdint>
#include <string>

namespace kxprobe {

// What the first sectors of a file say of it as the image of a disc.
struct ImageHead {
  bool isIso9660 = false;
  bool isUdf = false;
  int64_t statedBytes = 0;   // end of the volume, 0 unknown
  int64_t presentBytes = 0;  // size of the file

  bool isImage() const { return isIso9660 || isUdf; }
};

// All zero for a file that cannot be read.
ImageHead readImageHead(const std::string& path);

// Why an image cannot be mounted or read, for people; empty when nothing speaks against it.
// @param toleratedBytes that may be missing at its end
std::string imageFault(const std::string& path, int64_t toleratedBytes = 0);

// What programs that write images put behind the last file, and others cut off again.
inline constexpr int64_t kImagePadding = 150LL * 2048;

}  // namespace kxprobe
