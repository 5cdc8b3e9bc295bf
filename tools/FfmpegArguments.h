#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kxtools {

using Words = std::vector<std::string>;

/// Gives the path under which the encoder finds a concat list in the form it accepts; the
/// path itself when nothing has to be changed.
using ListConverter = std::function<std::string(const std::string& path)>;

/// Turns the arguments that the service sends into those of the installed encoder:
/// - "-fix_duration N" goes, "-f mkv" becomes "-f matroska";
/// - a sampling rate that the chosen audio encoder refuses goes;
/// - every input is limited to local files, and to formats that name no other files unless
///   the format is asked for by name; a list read with "-f concat" may name absolute paths;
/// - the terminal is never read.
/// The program name is not part of the words.
Words adaptArguments(const Words& words, const ListConverter& convertList);

/// A concat list whose names stand in single quotes. Names in double quotes, which the
/// encoder takes literally, are turned; relative ones are completed with @p folder, because
/// the result is read from another place.
std::string adaptConcatList(const std::string& text, const std::string& folder);

/// True when adaptConcatList() would change more than the place of the list.
bool needsAdapting(const std::string& text);

}  // namespace kxtools
