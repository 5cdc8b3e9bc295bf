#include "engines/SubtitleFilter.h"

#include <algorithm>
#include <cctype>

namespace engines {
namespace {

std::string escapeCharacters(const std::string& value, std::string_view special) {
  std::string result;
  for (const char c : value) {
    if (special.find(c) != std::string_view::npos || isspace(static_cast<unsigned char>(c)) != 0)
      result += '\\';
    result += c;
  }
  return result;
}

// "#rrggbb" as a colour of the subtitle renderer, which puts blue first; empty otherwise.
std::string styleColour(const std::string& colour) {
  const bool isHex = colour.size() == 7 && colour[0] == '#' &&
                     std::all_of(colour.begin() + 1, colour.end(),
                                 [](unsigned char c) { return isxdigit(c) != 0; });
  if (!isHex) return "";
  return "&H" + colour.substr(5, 2) + colour.substr(3, 2) + colour.substr(1, 2) + "&";
}

std::string style(const DrawnSubtitle& subtitle) {
  std::string style;
  if (subtitle.size > 0) style = "Fontsize=" + std::to_string(subtitle.size);
  const std::string colour = styleColour(subtitle.colour);
  if (!colour.empty()) style += (style.empty() ? "" : ",") + ("PrimaryColour=" + colour);
  return style.empty() ? "" : ":force_style=" + escapeFilterValue(style);
}

// Shifts the picture's times to those of the subtitle and back again.
std::string shifted(int64_t shift, const std::string& filter) {
  if (shift == 0) return filter;
  const std::string seconds = std::to_string(shift);
  return "setpts=PTS+(" + seconds + ")/TB," + filter + ",setpts=PTS-(" + seconds + ")/TB";
}

}  // namespace

std::string drawingFilter(const DrawnSubtitle& subtitle) {
  std::string source = escapeFilterValue(subtitle.file);
  if (subtitle.track >= 0) source += ":si=" + std::to_string(subtitle.track);
  return shifted(subtitle.shift, "subtitles=filename=" + source + style(subtitle));
}

std::string escapeFilterValue(const std::string& value) {
  // Once for the option value, once more for the chain around it.
  return escapeCharacters(escapeCharacters(value, "\\':"), "\\'[],;");
}

}  // namespace engines
