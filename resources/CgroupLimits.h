#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The arithmetic of the cgroup limits and the words of a command line, free of any file.
namespace cgrouplimits {

inline constexpr int32_t kPeriodUs = 100000;

// CPU time in microseconds a period that all processors together give.
constexpr int64_t wholeQuota(int32_t cpuCount) {
  return int64_t{cpuCount} * kPeriodUs;
}

// CPU time in microseconds a period for a percentage of all processors. Below 1 it is the
// floor of one per cent, never "no limit"; from 100 on it is everything.
constexpr int64_t quotaFor(int32_t cpuCount, int percent) {
  if (percent >= 100) return wholeQuota(cpuCount);
  return wholeQuota(cpuCount) * (percent < 1 ? 1 : percent) / 100;
}

// The percentage that a quota stands for, truncated in floating point: some percentages come
// back one lower than they were set.
constexpr int percentOf(int32_t quota, int32_t period, int32_t cpuCount) {
  return static_cast<int>(static_cast<double>(quota) / period * 100 / cpuCount);
}

// The ceiling in kilobytes for a machine without a configured one.
constexpr int32_t automaticMemLimit(int32_t totalKb) {
  const int32_t gigabytes = totalKb / 1048576;
  if (gigabytes < 1) return 524288;
  if (gigabytes < 3) return 1572864;
  return static_cast<int32_t>(totalKb * 0.8);
}

// Splits a command line in place; async-signal-safe. A word that begins with a quote runs to
// the next quote of that kind. The words are ended by NULL.
class CommandWords {
 public:
  static constexpr size_t kLineSize = 1024;

  explicit CommandWords(const char* line);
  char* const* argv() { return m_words.data(); }
  bool empty() const { return m_words[0] == nullptr; }

 private:
  char* takeWord(char* position);

  std::array<char, kLineSize> m_line;
  std::array<char*, kLineSize / 2 + 1> m_words;
  size_t m_count = 0;
};

}  // namespace cgrouplimits
