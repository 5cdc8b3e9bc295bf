#include "probe/DiscImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include "frame/UniqueFd.h"

namespace kxprobe {
namespace {

constexpr int64_t kSectorSize = 2048;
constexpr uint32_t kFirstDescriptor = 16;
constexpr uint32_t kDescriptors = 32;  // looked at, at most, in either list
constexpr uint32_t kUdfAnchor = 256;
constexpr int64_t kLargestDisc = 256LL << 30;

using Sector = std::array<unsigned char, kSectorSize>;

std::optional<Sector> readSector(int fd, uint32_t number) {
  Sector sector;
  const ssize_t count = pread(fd, sector.data(), sector.size(), number * kSectorSize);
  if (count != static_cast<ssize_t>(sector.size())) return std::nullopt;
  return sector;
}

uint32_t number(const Sector& sector, size_t at, size_t bytes) {
  uint32_t value = 0;
  for (size_t i = bytes; i-- > 0;) value = value << 8 | sector[at + i];
  return value;
}

std::string_view identifier(const Sector& sector) {
  return {reinterpret_cast<const char*>(sector.data()) + 1, 5};
}

int64_t isoVolumeEnd(const Sector& primary) {
  return int64_t{number(primary, 80, 4)} * number(primary, 128, 2);
}

// The descriptors of both file systems stand in one list.
void readDescriptors(int fd, ImageHead& head) {
  for (uint32_t i = 0; i < kDescriptors; ++i) {
    const auto sector = readSector(fd, kFirstDescriptor + i);
    if (!sector) return;
    const std::string_view name = identifier(*sector);
    if (name == "CD001") {
      head.isIso9660 = true;
      if ((*sector)[0] == 1) head.statedBytes = isoVolumeEnd(*sector);
    } else if (name == "NSR02" || name == "NSR03") {
      head.isUdf = true;
    } else if (name != "BEA01" && name != "BOOT2" && name != "CDW02") {
      return;
    }
  }
}

enum UdfTag : uint32_t { kAnchorTag = 2, kPartitionTag = 5, kTerminatorTag = 8 };

int64_t udfPartitionEnd(int fd) {
  const auto anchor = readSector(fd, kUdfAnchor);
  if (!anchor || number(*anchor, 0, 2) != kAnchorTag) return 0;
  const uint32_t list = number(*anchor, 20, 4);
  for (uint32_t i = 0; i < kDescriptors; ++i) {
    const auto sector = readSector(fd, list + i);
    if (!sector || number(*sector, 0, 2) == kTerminatorTag) return 0;
    if (number(*sector, 0, 2) == kPartitionTag)
      return (int64_t{number(*sector, 188, 4)} + number(*sector, 192, 4)) * kSectorSize;
  }
  return 0;
}

}  // namespace

ImageHead readImageHead(const std::string& path) {
  ImageHead head;
  struct stat info {};
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return head;
  head.presentBytes = info.st_size;
  readDescriptors(fd.get(), head);
  if (head.isUdf) head.statedBytes = std::max(head.statedBytes, udfPartitionEnd(fd.get()));
  return head;
}

std::string imageFault(const std::string& path, int64_t toleratedBytes) {
  const ImageHead head = readImageHead(path);
  if (!head.isImage()) return "the file is no disc image: it holds neither ISO 9660 nor UDF";
  if (head.presentBytes <= kUdfAnchor * kSectorSize && !head.isIso9660)
    return "the disc image is cut off: it ends before its volume begins";
  if (head.statedBytes > kLargestDisc) return "the disc image is damaged: no disc has its size";
  if (head.statedBytes - head.presentBytes <= toleratedBytes) return "";
  return "the disc image is cut off: " + std::to_string(head.statedBytes - head.presentBytes) +
         " bytes are missing";
}

}  // namespace kxprobe
