#include "engines/SubtitleFilter.h"

#include <algorithm>
#include <array>
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

struct NamedColour {
  std::string_view name;
  const char* rgb;
};
constexpr std::array<NamedColour, 17> kColours{{{"aqua", "00ffff"},
                                                {"black", "000000"},
                                                {"blue", "0000ff"},
                                                {"cyan", "00ffff"},
                                                {"gray", "808080"},
                                                {"green", "008000"},
                                                {"grey", "808080"},
                                                {"lime", "00ff00"},
                                                {"magenta", "ff00ff"},
                                                {"navy", "000080"},
                                                {"orange", "ffa500"},
                                                {"pink", "ffc0cb"},
                                                {"purple", "800080"},
                                                {"red", "ff0000"},
                                                {"silver", "c0c0c0"},
                                                {"white", "ffffff"},
                                                {"yellow", "ffff00"}}};

bool isHex(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return isxdigit(c) != 0; });
}

// "rrggbb" of a name; empty when there is no such colour.
std::string named(const std::string& colour) {
  std::string name = colour;
  std::ranges::transform(name, name.begin(), [](unsigned char c) { return tolower(c); });
  const auto* found = std::ranges::find(kColours, name, &NamedColour::name);
  return found == kColours.end() ? "" : found->rgb;
}

// The same as a colour of the subtitle renderer, which puts blue first; empty when it is none.
std::string styleColour(const std::string& colour) {
  if (colour.starts_with("&H")) {
    const std::string digits = colour.substr(2, colour.size() - (colour.ends_with('&') ? 3 : 2));
    const bool isColour = (digits.size() == 6 || digits.size() == 8) && isHex(digits);
    return isColour ? "&H" + digits + "&" : "";
  }
  const bool isCode = colour.size() == 7 && colour[0] == '#' && isHex(colour.substr(1));
  const std::string rgb = isCode ? colour.substr(1) : named(colour);
  if (rgb.empty()) return "";
  return "&H" + rgb.substr(4, 2) + rgb.substr(2, 2) + rgb.substr(0, 2) + "&";
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

bool isSubtitleColour(const std::string& text) {
  return !styleColour(text).empty();
}

std::string escapeFilterValue(const std::string& value) {
  // Once for the option value, once more for the chain around it.
  return escapeCharacters(escapeCharacters(value, "\\':"), "\\'[],;");
}

}  // namespace engines
