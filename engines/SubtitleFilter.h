#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace engines {

/// A subtitle that a filter draws on the picture.
struct DrawnSubtitle {
  std::string file;    ///< a subtitle file, or the video that holds the subtitle
  int track = -1;      ///< subtitle track of a video; -1 when the file is the subtitle
  int size = 0;        ///< font size; 0 is the renderer's own
  std::string colour;  ///< see isSubtitleColour(); anything else is the renderer's own
  int64_t shift = 0;   ///< seconds that the picture's times lie before the subtitle's
};

/// The piece of a "-vf" chain that draws it.
std::string drawingFilter(const DrawnSubtitle& subtitle);

/// True for "#rrggbb", the name of a common colour, and "&Hbbggrr" or "&Haabbggrr", which
/// subtitle files use.
bool isSubtitleColour(const std::string& text);

/// A path as one option value of a filter inside a "-vf" argument.
std::string escapeFilterValue(const std::string& value);

}  // namespace engines
