#include <algorithm>
#include <array>

#include "KxTranscodeUnit2.h"
#include "engines/SegmentPlan.h"

namespace {

// Bytes a second of each profile's result, by row of the profile table; generous. 0: as much
// as the source.
constexpr std::array<int64_t, 7> kBytesPerSecond = {90'000,  130'000, 190'000, 380'000,
                                                    750'000, 0,       40'000};
constexpr size_t kSoundRow = 6;
constexpr int64_t kSpare = int64_t{64} << 20;

int64_t profileBytes(const KxDBTaskParam& job, size_t row) {
  const int64_t asSource = std::max<int64_t>(job.fileSize, 0) + job.fileSize / 2;
  if (kBytesPerSecond[row] == 0 || job.duration <= 0) return asSource;
  return kBytesPerSecond[row] * job.duration;
}

}  // namespace

KxJobRoom kxJobRoom(const KxDBTaskParam& job) {
  int64_t sum = 0;
  int64_t pictures = 0;
  int64_t largest = 0;
  for (size_t row = 0; row < kBytesPerSecond.size(); ++row) {
    if ((job.jobFlag >> row & 1) == 0) continue;
    const int64_t bytes = profileBytes(job, row);
    sum += bytes;
    largest = std::max(largest, bytes);
    if (row != kSoundRow) pictures += bytes;
  }
  KxJobRoom room;
  // A result stands there twice while it is rewritten for its index or its rotation.
  room.beside = sum + largest + kSpare;
  // The source is there twice, once in pieces and once beside its new sound.
  if (pictures > 0 && job.duration >= engines::kSegmentSourceSeconds)
    room.pieces = 2 * std::max<int64_t>(job.fileSize, 0) + pictures + kSpare;
  return room;
}
