#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace xcodectl {

// The names of the profiles, in the order of their bits.
const std::vector<std::string>& profileNames();
// Bits of a list of profile names ("mobile240p,original"). Throws Failure for a wrong name.
uint64_t profileBits(const std::vector<std::string>& names);
// Names of the selected profiles, joined by ",".
std::string profileText(uint64_t bits);

std::string statusText(int status);     // "waiting", "done", ...
std::string serverText(int state);      // "running", "stopped", ...
std::string unitText(int state);        // "start", "pending", ...
std::string sizeText(int64_t bytes);    // "1.4 GB"
std::string durationText(double secs);  // "1:02:03"
std::string timeText(int64_t epoch);    // local time, "-" for 0

// A progress bar of the given width, such as "[####......]".
std::string barText(int percent, int width);

// Control characters replaced, so that a hostile file name cannot drive the terminal.
std::string printable(const std::string& text);

// Whether JSON can carry a text as it is.
bool isUtf8(const std::string& text);

// Rows of cells printed as aligned columns; the last column is not padded.
std::string tableText(const std::vector<std::vector<std::string>>& rows);

// Fields of an answer that may be absent.
int64_t integer(const nlohmann::json& object, const char* key, int64_t fallback = 0);
std::string string(const nlohmann::json& object, const char* key);

}  // namespace xcodectl
