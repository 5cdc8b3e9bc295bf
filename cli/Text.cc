#include "cli/Text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "cli/ControlClient.h"

namespace xcodectl {
namespace {

template <size_t N>
std::string named(const std::array<const char*, N>& names, int value) {
  if (value >= 0 && value < static_cast<int>(N)) return names[static_cast<size_t>(value)];
  return "state " + std::to_string(value);
}

// Columns that a UTF-8 text takes on a terminal, near enough: one per code point.
size_t columns(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

const std::vector<std::string>& profileNames() {
  static const std::vector<std::string> names = {"mobile240p", "mobile360p",  "mobile480p",
                                                 "ipad720p",   "mobile1080p", "original",
                                                 "video2audio"};
  return names;
}

uint64_t profileBits(const std::vector<std::string>& names) {
  uint64_t bits = 0;
  for (const std::string& name : names) {
    const auto& known = profileNames();
    const auto found = std::find(known.begin(), known.end(), name);
    if (found == known.end()) {
      std::string all;
      for (const std::string& one : known) all += (all.empty() ? "" : ", ") + one;
      throw Failure(kExitUsage, "There is no profile '" + printable(name) + "'. Profiles: " + all);
    }
    bits |= uint64_t{1} << (found - known.begin());
  }
  return bits;
}

std::string profileText(uint64_t bits) {
  std::string text;
  for (size_t i = 0; i < profileNames().size(); ++i) {
    if ((bits >> i & 1) == 0) continue;
    text += (text.empty() ? "" : ",") + profileNames()[i];
  }
  return text.empty() ? "none" : text;
}

std::string statusText(int status) {
  static constexpr std::array<const char*, 6> kNames = {"waiting", "done",    "failed",
                                                        "running", "state 4", "cancelled"};
  return named(kNames, status);
}

std::string serverText(int state) {
  static constexpr std::array<const char*, 4> kNames = {"starting", "running", "stopped", "paused"};
  return named(kNames, state);
}

std::string unitText(int state) {
  static constexpr std::array<const char*, 6> kNames = {"undefined", "ready",     "running",
                                                        "stopping",  "suspended", "finished"};
  return named(kNames, state);
}

std::string sizeText(int64_t bytes) {
  static constexpr std::array<const char*, 5> kUnits = {"B", "kB", "MB", "GB", "TB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1000 && unit + 1 < kUnits.size()) {
    value /= 1000;
    ++unit;
  }
  char text[32];
  snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string durationText(double secs) {
  const auto total = std::lround(secs);
  char text[48];
  if (total >= 3600) {
    snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
  } else {
    snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
  }
  return text;
}

std::string timeText(int64_t epoch) {
  if (epoch <= 0) return "-";
  const auto seconds = static_cast<time_t>(epoch);
  struct tm local {};
  localtime_r(&seconds, &local);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::string barText(int percent, int width) {
  const int done = std::clamp(percent, 0, 100) * width / 100;
  return "[" + std::string(static_cast<size_t>(done), '#') +
         std::string(static_cast<size_t>(width - done), '.') + "]";
}

std::string printable(const std::string& text) {
  std::string result;
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    result += byte < 0x20 || byte == 0x7F ? '?' : c;
  }
  return result;
}

bool isUtf8(const std::string& text) {
  try {
    return !nlohmann::json(text).dump().empty();
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

std::string tableText(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
  }
  std::string text;
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] - columns(row[i]) + 2, ' ');
    }
    text += '\n';
  }
  return text;
}

int64_t integer(const nlohmann::json& object, const char* key, int64_t fallback) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number() ? found->get<int64_t>() : fallback;
}

std::string string(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

}  // namespace xcodectl
