#pragma once

#include <cstdint>

// The guard that keeps the service from filling a volume.
namespace diskspace {

inline constexpr int64_t kReserve = int64_t{10} << 30;  // bytes

// Free space as the file system counts it: in whole blocks, with those that only root may use.
constexpr int64_t freeBytes(uint64_t blockSize, uint64_t freeBlocks) {
  return static_cast<int64_t>(blockSize * freeBlocks);
}

constexpr bool isEnough(int64_t bytes) {
  return bytes >= kReserve;
}

}  // namespace diskspace
