#include "probe/AsfHeader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>
#include <vector>

#include "frame/UniqueFd.h"

namespace kxprobe {
namespace {

constexpr size_t kHeaderLimit = 65536;  // bytes; the object stands near the beginning

// Of the file properties object: its identifier, and where its fields begin.
constexpr std::array<uint8_t, 16> kFileProperties = {
    0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11, 0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
constexpr std::ptrdiff_t kPlayDuration = 64;  // units of 100 nanoseconds
constexpr std::ptrdiff_t kPreroll = 80;       // milliseconds, part of the play duration
constexpr std::ptrdiff_t kFlags = 88;
constexpr std::ptrdiff_t kObjectSize = 104;
constexpr uint64_t kBroadcast = 1;  // flag: the other fields mean nothing

std::vector<uint8_t> readBeginning(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<uint8_t> bytes(kHeaderLimit);
  const ssize_t count = file ? read(file.get(), bytes.data(), bytes.size()) : 0;
  bytes.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  return bytes;
}

uint64_t littleEndian(const uint8_t* bytes, int count) {
  uint64_t value = 0;
  for (int i = count - 1; i >= 0; --i) value = value << 8 | bytes[i];
  return value;
}

}  // namespace

std::optional<int64_t> asfPlayTimeMs(const std::string& path) {
  const std::vector<uint8_t> bytes = readBeginning(path);
  const auto found =
      std::search(bytes.begin(), bytes.end(), kFileProperties.begin(), kFileProperties.end());
  if (bytes.end() - found < kObjectSize) return std::nullopt;
  const uint8_t* const object = &*found;
  const uint64_t durationMs = littleEndian(object + kPlayDuration, 8) / 10000;
  const uint64_t prerollMs = littleEndian(object + kPreroll, 8);
  const bool isLive = (littleEndian(object + kFlags, 4) & kBroadcast) != 0;
  if (isLive || durationMs <= prerollMs) return std::nullopt;
  return static_cast<int64_t>(durationMs - prerollMs);
}

}  // namespace kxprobe
