#pragma once

#include <string>

// The text of a subtitle file, whatever it is encoded in.

namespace runner {

inline constexpr const char* kUtf8 = "UTF-8";

struct SubtitleText {
  std::string fault;       // why there is no text; empty when there is
  std::string encoding;    // of the file, as iconv(3) names it
  std::string utf8;        // without byte order mark, every time with its fraction
  bool isChanged = false;  // the renderer would not read the file itself
};

// Encoding of a text: UTF-8 and UTF-16 with or without a mark, GBK and its successor where
// nearly all foreign bytes come in pairs, else the Western one.
std::string encodingOf(const std::string& bytes);

// Reads a subtitle file. A playlist, which would lead the reader to other files, is no
// subtitle.
SubtitleText readSubtitle(const std::string& path);

// True when a demuxer takes the file for a subtitle and nothing else. The renderer would open
// whatever it is given, playlists and session descriptions too.
bool isSubtitle(const std::string& path);

// Writes a new file, for its owner alone.
bool writeText(const std::string& path, const std::string& text);

}  // namespace runner
