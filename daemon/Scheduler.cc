#include "daemon/Scheduler.h"

#include <algorithm>
#include <array>

#include "KxAbstractTranscodeSvr.h"

namespace xcoded {
namespace {

// Bytes a second of each profile's result, by row of the profile table; generous. 0: as much
// as the source.
constexpr std::array<int64_t, 7> kBytesPerSecond = {90'000,  130'000, 190'000, 380'000,
                                                    750'000, 0,       40'000};
constexpr int64_t kSpare = int64_t{64} << 20;

int64_t profileBytes(const KxDBTaskParam& job, size_t row) {
  const int64_t asSource = std::max<int64_t>(job.fileSize, 0) + job.fileSize / 2;
  if (kBytesPerSecond[row] == 0 || job.duration <= 0) return asSource;
  return kBytesPerSecond[row] * job.duration;
}

}  // namespace

int freeSlots(const SchedulerState& state) {
  if (state.svrStatus != SVR_RUNNING || state.diskFull) return 0;
  int slots = std::max(state.maxUnits - state.activeUnits, 0);
  int64_t memory = state.availableKb - state.youngUnits * kUnitMemoryKb;
  int granted = 0;
  while (granted < slots) {
    const bool isFirst = state.activeUnits + granted == 0;
    if (!isFirst && memory < kUnitMemoryKb) break;
    memory -= kUnitMemoryKb;
    ++granted;
  }
  return granted;
}

int defaultMaxUnits(int processors, int hardwareResources) {
  const int forCpu = processors <= 1 ? 1 : 2 + (processors - 2) / 4;
  return forCpu + std::max(hardwareResources, 0);
}

int64_t estimateRoom(const KxDBTaskParam& job) {
  int64_t sum = 0;
  int64_t largest = 0;
  for (size_t row = 0; row < kBytesPerSecond.size(); ++row) {
    if ((job.jobFlag >> row & 1) == 0) continue;
    const int64_t bytes = profileBytes(job, row);
    sum += bytes;
    largest = std::max(largest, bytes);
  }
  // A result stands there twice while it is rewritten for its index or its rotation.
  return sum + largest + kSpare;
}

bool RoomLedger::reserve(const KxDBTaskParam& job) {
  const std::optional<Volume> volume = m_volumeOf(job.src);
  if (!volume) return true;
  int64_t& left = m_left.try_emplace(volume->device, volume->freeBytes).first->second;
  const int64_t needed = estimateRoom(job);
  if (left < needed) return false;
  left -= needed;
  return true;
}

}  // namespace xcoded
