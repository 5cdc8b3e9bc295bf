#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "KxDBTask.h"

// What decides which waiting job starts when. Nothing here locks, looks at the machine or
// starts anything; UnitControl does.

namespace xcoded {

// What the decision about one more unit depends on.
struct SchedulerState {
  int svrStatus = 0;  // KxSvrStatus_e
  bool diskFull = false;
  int activeUnits = 0;  // units that run, wind down or are suspended
  int youngUnits = 0;   // those of them that started so lately that their memory is not seen yet
  int maxUnits = 1;
  int64_t availableKb = 0;  // memory that is free for new work
};

// Memory that each unit beyond the first needs, in kilobytes.
constexpr int64_t kUnitMemoryKb = int64_t{400} * 1024;

// How many more units may start now.
int freeSlots(const SchedulerState& state);

// Units at once when the configuration does not say: two for the processor (one on a single
// core, one more per four cores beyond two) and one per hardware resource.
int defaultMaxUnits(int processors, int hardwareResources);

// Bytes that the outputs and the temporary files of a job may take while it runs.
int64_t estimateRoom(const KxDBTaskParam& job);

// Free room of one volume.
struct Volume {
  uint64_t device = 0;
  int64_t freeBytes = 0;
};

// Keeps account of the room on the volumes during one round of decisions, so that jobs that
// start together do not count on the same room.
class RoomLedger {
 public:
  // @p volumeOf finds the volume of a source file; nothing when there is none.
  // @p workVolume finds the volume of the work folders while jobs go by pieces; nothing, also
  // for the function itself, while they do not.
  explicit RoomLedger(std::function<std::optional<Volume>(const std::string& src)> volumeOf,
                      std::function<std::optional<Volume>()> workVolume = {})
      : m_volumeOf(std::move(volumeOf)), m_workVolume(std::move(workVolume)) {}
  // Sets room aside for a job. False, and nothing set aside, when its volume lacks room. A
  // job whose volume cannot be found passes: it fails by itself and says why. A job without
  // room for its pieces passes too: it goes whole.
  bool reserve(const KxDBTaskParam& job);

 private:
  int64_t& leftOn(const Volume& volume);
  void reservePieces(const KxDBTaskParam& job);

  std::function<std::optional<Volume>(const std::string&)> m_volumeOf;
  std::function<std::optional<Volume>()> m_workVolume;
  std::map<uint64_t, int64_t> m_left;  // bytes by device
};

}  // namespace xcoded
