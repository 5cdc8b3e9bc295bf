#include "resources/EncoderLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "frame/UniqueFd.h"
#include "resources/JobRun.h"

namespace runner {
namespace {

// Enough to hold the statistics of an encoder and what it said before them.
constexpr off_t kTail = 65536;

// Beginnings of lines that say nothing about what went wrong. Indented lines describe streams.
constexpr std::array<std::string_view, 15> kChatter = {"frame=",
                                                       "size=",
                                                       "video:",
                                                       " ",
                                                       "Conversion failed!",
                                                       "Error marking filters as finished",
                                                       "Exiting normally",
                                                       "Press [q]",
                                                       "Stream mapping:",
                                                       "To ignore this",
                                                       "Input #",
                                                       "Output #",
                                                       "ffmpeg version",
                                                       "File '",
                                                       "More than 1000 frames"};

// The same of lines of a component, behind its name.
constexpr std::array<std::string_view, 23> kStatistics = {"frame I:",
                                                          "frame P:",
                                                          "frame B:",
                                                          "mb I",
                                                          "mb P",
                                                          "mb B",
                                                          "coded y",
                                                          "i16 ",
                                                          "i8 ",
                                                          "i8c ",
                                                          "i4 ",
                                                          "ref P",
                                                          "ref B",
                                                          "kb/s:",
                                                          "consecutive B-frames:",
                                                          "direct mvs",
                                                          "Qavg:",
                                                          "using ",
                                                          "profile ",
                                                          "264 - core",
                                                          "8x8 trans",
                                                          "Weighted P-Frames",
                                                          "Starting second pass"};

// Lines that only repeat that a step failed; the component before them said why.
constexpr std::string_view kRepetition = "Error initializing output stream";
// A line of the encoder itself that says why, and its guess at a cause.
constexpr std::string_view kHeaderFault = "Could not write header";
constexpr std::string_view kGuess = " (incorrect codec parameters ?)";
// What an encoder advises to those who typed its command.
constexpr std::string_view kAdvice = " (check -ss";

template <typename Beginnings>
bool startsWithOne(std::string_view line, const Beginnings& beginnings) {
  return std::ranges::any_of(beginnings, [&](std::string_view b) { return line.starts_with(b); });
}

struct LogLine {
  std::string_view component;  // empty when the encoder itself speaks
  std::string_view text;
};

// Takes "[name @ 0x55dc2af660c0] text" apart.
LogLine parse(std::string_view line) {
  const size_t address = line.find(" @ 0x");
  const size_t end = line.find("] ");
  if (!line.starts_with("[") || address == std::string_view::npos ||
      end == std::string_view::npos || address > end)
    return {{}, line};
  return {line.substr(1, address - 1), line.substr(end + 2)};
}

bool tellsNothing(const LogLine& line) {
  if (line.text.empty()) return true;
  return line.component.empty() ? startsWithOne(line.text, kChatter)
                                : startsWithOne(line.text, kStatistics);
}

std::string forPeople(const LogLine& line) {
  std::string text(line.text.substr(0, line.text.find(kAdvice)));
  const size_t guess = text.find(kGuess);
  if (guess != std::string::npos) text.erase(guess, kGuess.size());
  return oneLine(line.component.empty() ? text : std::string(line.component) + ": " + text);
}

std::string tailOf(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info;
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return "";
  std::string text(kTail, '\0');
  const ssize_t count =
      pread(file.get(), text.data(), text.size(), std::max<off_t>(0, info.st_size - kTail));
  text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  return text;
}

// The lines of a text, last one first.
std::vector<std::string_view> linesFromTheEnd(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t end = text.find_last_of("\r\n");
    const size_t begin = end == std::string_view::npos ? 0 : end + 1;
    lines.push_back(text.substr(begin));
    text = text.substr(0, end == std::string_view::npos ? 0 : end);
  }
  return lines;
}

}  // namespace

std::string complaintOf(const std::string& logPath) {
  const std::string tail = tailOf(logPath);
  LogLine repetition;
  for (const std::string_view text : linesFromTheEnd(tail)) {
    const LogLine line = parse(text);
    if (tellsNothing(line)) continue;
    if (line.text.starts_with(kRepetition)) {
      repetition = line;
      continue;
    }
    const bool isUnrelated =
        !repetition.text.empty() && line.component.empty() && !line.text.starts_with(kHeaderFault);
    return forPeople(isUnrelated ? repetition : line);
  }
  return forPeople(repetition);
}

}  // namespace runner
