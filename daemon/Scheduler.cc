#include "daemon/Scheduler.h"

#include <algorithm>

#include "KxAbstractTranscodeSvr.h"
#include "KxTranscodeUnit2.h"

namespace xcoded {

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
  return kxJobRoom(job).beside;
}

int64_t& RoomLedger::leftOn(const Volume& volume) {
  return m_left.try_emplace(volume.device, volume.freeBytes).first->second;
}

bool RoomLedger::reserve(const KxDBTaskParam& job) {
  const std::optional<Volume> volume = m_volumeOf(job.src);
  if (!volume) return true;
  int64_t& left = leftOn(*volume);
  const int64_t needed = estimateRoom(job);
  if (left < needed) return false;
  left -= needed;
  reservePieces(job);
  return true;
}

void RoomLedger::reservePieces(const KxDBTaskParam& job) {
  const int64_t pieces = kxJobRoom(job).pieces;
  if (pieces == 0 || !m_workVolume) return;
  const std::optional<Volume> work = m_workVolume();
  if (!work) return;
  int64_t& left = leftOn(*work);
  if (left >= pieces) left -= pieces;
}

}  // namespace xcoded
