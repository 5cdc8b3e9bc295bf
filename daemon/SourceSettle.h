#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>

namespace xcoded {

// Tells whether a file is complete: nobody has it open for writing, and it has not changed for
// a settle time. Used by one thread.
//
// A file's change time tells at once how long it has been at rest. Where clocks disagree, as on
// network volumes, it is watched for the settle time instead. Where the file system cannot tell
// about writers, the settle time alone decides.
class SourceSettle {
 public:
  using Clock = std::chrono::steady_clock;

  explicit SourceSettle(std::chrono::seconds settleTime) : m_settleTime(settleTime) {}

  // Starts a round of questions: what was not asked for in the last one is forgotten.
  void beginRound();
  // A file that is not there, or is no file, counts as complete: a job of it fails by itself.
  bool isComplete(const std::string& path);
  // When the first of the files that are not complete may be; nothing when there are none.
  std::optional<Clock::time_point> nextLook() const { return m_nextLook; }

 private:
  struct Sight {
    off_t size;
    timespec changed;
    Clock::time_point since;
    uint64_t round;
  };

  Clock::duration restOf(const std::string& path, const struct stat& info);
  void lookAgainIn(Clock::duration time);

  const std::chrono::seconds m_settleTime;
  uint64_t m_round = 0;
  std::map<std::string, Sight> m_sights;
  std::optional<Clock::time_point> m_nextLook;
};

// True when some process has a file open for writing; false too when that cannot be known.
bool hasWriter(const std::string& path);

}  // namespace xcoded
