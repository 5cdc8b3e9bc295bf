// MyIDB_GetFilenameType(): media classes by extension.

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <string_view>

#include "KxHostPlatform.h"

namespace {

enum FileClass { kNone = 0, kPicture = 1, kVideo = 2, kAudio = 3 };

struct ExtensionRow {
  std::string_view extension;
  FileClass fileClass;
};

// Sorted by extension. Container names that hold pictures and sound as well as sound alone
// stand under what they mostly hold.
constexpr std::array kExtensions = {
    ExtensionRow{"264", kVideo},    ExtensionRow{"265", kVideo},    ExtensionRow{"3g2", kVideo},
    ExtensionRow{"3ga", kAudio},    ExtensionRow{"3gp", kVideo},    ExtensionRow{"3gpp", kVideo},
    ExtensionRow{"aac", kAudio},    ExtensionRow{"ac3", kAudio},    ExtensionRow{"aif", kAudio},
    ExtensionRow{"aifc", kAudio},   ExtensionRow{"aiff", kAudio},   ExtensionRow{"amr", kAudio},
    ExtensionRow{"amv", kVideo},    ExtensionRow{"ape", kAudio},    ExtensionRow{"arw", kPicture},
    ExtensionRow{"asf", kVideo},    ExtensionRow{"au", kAudio},     ExtensionRow{"avi", kVideo},
    ExtensionRow{"avif", kPicture}, ExtensionRow{"awb", kAudio},    ExtensionRow{"bmp", kPicture},
    ExtensionRow{"caf", kAudio},    ExtensionRow{"cr2", kPicture},  ExtensionRow{"cr3", kPicture},
    ExtensionRow{"dff", kAudio},    ExtensionRow{"divx", kVideo},   ExtensionRow{"dng", kPicture},
    ExtensionRow{"dsf", kAudio},    ExtensionRow{"dts", kAudio},    ExtensionRow{"dv", kVideo},
    ExtensionRow{"eac3", kAudio},   ExtensionRow{"f4v", kVideo},    ExtensionRow{"flac", kAudio},
    ExtensionRow{"flv", kVideo},    ExtensionRow{"gif", kPicture},  ExtensionRow{"h264", kVideo},
    ExtensionRow{"h265", kVideo},   ExtensionRow{"heic", kPicture}, ExtensionRow{"heif", kPicture},
    ExtensionRow{"hevc", kVideo},   ExtensionRow{"ifo", kVideo},    ExtensionRow{"iso", kVideo},
    ExtensionRow{"jpe", kPicture},  ExtensionRow{"jpeg", kPicture}, ExtensionRow{"jpg", kPicture},
    ExtensionRow{"m1v", kVideo},    ExtensionRow{"m2t", kVideo},    ExtensionRow{"m2ts", kVideo},
    ExtensionRow{"m2v", kVideo},    ExtensionRow{"m4a", kAudio},    ExtensionRow{"m4b", kAudio},
    ExtensionRow{"m4r", kAudio},    ExtensionRow{"m4v", kVideo},    ExtensionRow{"mjpg", kVideo},
    ExtensionRow{"mka", kAudio},    ExtensionRow{"mkv", kVideo},    ExtensionRow{"mod", kVideo},
    ExtensionRow{"mov", kVideo},    ExtensionRow{"mp2", kAudio},    ExtensionRow{"mp3", kAudio},
    ExtensionRow{"mp4", kVideo},    ExtensionRow{"mpa", kAudio},    ExtensionRow{"mpc", kAudio},
    ExtensionRow{"mpe", kVideo},    ExtensionRow{"mpeg", kVideo},   ExtensionRow{"mpg", kVideo},
    ExtensionRow{"mpv", kVideo},    ExtensionRow{"mts", kVideo},    ExtensionRow{"mxf", kVideo},
    ExtensionRow{"nef", kPicture},  ExtensionRow{"oga", kAudio},    ExtensionRow{"ogg", kAudio},
    ExtensionRow{"ogm", kVideo},    ExtensionRow{"ogv", kVideo},    ExtensionRow{"opus", kAudio},
    ExtensionRow{"orf", kPicture},  ExtensionRow{"pef", kPicture},  ExtensionRow{"png", kPicture},
    ExtensionRow{"qt", kVideo},     ExtensionRow{"ra", kAudio},     ExtensionRow{"raf", kPicture},
    ExtensionRow{"rm", kVideo},     ExtensionRow{"rmvb", kVideo},   ExtensionRow{"rw2", kPicture},
    ExtensionRow{"snd", kAudio},    ExtensionRow{"srw", kPicture},  ExtensionRow{"tif", kPicture},
    ExtensionRow{"tiff", kPicture}, ExtensionRow{"tod", kVideo},    ExtensionRow{"tp", kVideo},
    ExtensionRow{"trp", kVideo},    ExtensionRow{"ts", kVideo},     ExtensionRow{"tta", kAudio},
    ExtensionRow{"vob", kVideo},    ExtensionRow{"wav", kAudio},    ExtensionRow{"webm", kVideo},
    ExtensionRow{"webp", kPicture}, ExtensionRow{"wma", kAudio},    ExtensionRow{"wmv", kVideo},
    ExtensionRow{"wtv", kVideo},    ExtensionRow{"wv", kAudio},     ExtensionRow{"xvid", kVideo},
};

constexpr bool byExtension(const ExtensionRow& a, const ExtensionRow& b) {
  return a.extension < b.extension;
}
static_assert(std::is_sorted(kExtensions.begin(), kExtensions.end(), byExtension));

std::string_view extensionOf(std::string_view name) {
  const size_t slash = name.rfind('/');
  if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  return name.substr(dot + 1);
}

FileClass classOf(std::string_view extension) {
  std::string lower(extension);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  const auto* row = std::lower_bound(kExtensions.begin(), kExtensions.end(),
                                     ExtensionRow{lower, kNone}, byExtension);
  return row != kExtensions.end() && row->extension == lower ? row->fileClass : kNone;
}

}  // namespace

int MyIDB_GetFilenameType(const char* name, char* ext, int, int extSize) {
  const std::string_view extension = extensionOf(name == nullptr ? "" : name);
  if (ext != nullptr && extSize > 0) {
    ext[extension.copy(ext, static_cast<size_t>(extSize) - 1)] = '\0';
  }
  return classOf(extension);
}
