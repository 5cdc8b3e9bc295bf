#include "resources/ContainerShape.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string_view>

#include "frame/UniqueFd.h"

namespace runner {
namespace {

// Some writers are a little off with the length they state.
constexpr int64_t kSlack = 1024;
// More top-level parts than any usable file has.
constexpr int kMaxParts = 1 << 20;

// Reads numbers at offsets of one file; a read beyond its end gives nothing.
class Bytes {
 public:
  explicit Bytes(const std::string& path)
      : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    struct stat info;
    if (m_fd && fstat(m_fd.get(), &info) == 0 && S_ISREG(info.st_mode)) m_size = info.st_size;
  }

  int64_t size() const { return m_size; }

  template <size_t N>
  std::optional<std::array<uint8_t, N>> at(int64_t offset) const {
    std::array<uint8_t, N> bytes;
    if (offset < 0 || offset > m_size - static_cast<int64_t>(N)) return std::nullopt;
    if (pread(m_fd.get(), bytes.data(), N, offset) != static_cast<ssize_t>(N)) return std::nullopt;
    return bytes;
  }

  bool startsWith(std::string_view text, int64_t offset = 0) const {
    std::array<char, 16> bytes{};
    const size_t count = std::min(text.size(), bytes.size());
    return offset >= 0 &&
           pread(m_fd.get(), bytes.data(), count, offset) == static_cast<ssize_t>(count) &&
           memcmp(bytes.data(), text.data(), count) == 0;
  }

  template <size_t N>
  std::optional<uint64_t> bigEndian(int64_t offset) const {
    const auto bytes = at<N>(offset);
    if (!bytes) return std::nullopt;
    uint64_t value = 0;
    for (const uint8_t byte : *bytes) value = value << 8 | byte;
    return value;
  }

  template <size_t N>
  std::optional<uint64_t> littleEndian(int64_t offset) const {
    auto bytes = at<N>(offset);
    if (!bytes) return std::nullopt;
    uint64_t value = 0;
    for (auto byte = bytes->rbegin(); byte != bytes->rend(); ++byte) value = value << 8 | *byte;
    return value;
  }

 private:
  UniqueFd m_fd;
  int64_t m_size = 0;
};

ContainerShape statedEnd(uint64_t end, int64_t size) {
  if (end <= static_cast<uint64_t>(size + kSlack)) return {Completeness::Whole, 0};
  const uint64_t missing = end - static_cast<uint64_t>(size);
  return {Completeness::CutOff, static_cast<int64_t>(std::min<uint64_t>(missing, INT64_MAX))};
}

// Walks the parts of a file that lie one after the other, each with its own length.
template <typename PartLength>
ContainerShape walkParts(const Bytes& file, PartLength partLength) {
  uint64_t offset = 0;
  for (int part = 0; part < kMaxParts; ++part) {
    if (offset + 8 > static_cast<uint64_t>(file.size())) return statedEnd(offset, file.size());
    const std::optional<uint64_t> length = partLength(static_cast<int64_t>(offset));
    if (!length || *length < 8 || *length > INT64_MAX / 2) return {};
    offset += *length;
  }
  return {};
}

template <size_t N>
bool startsWithOneOf(const Bytes& file, const std::array<std::string_view, N>& texts,
                     int64_t offset) {
  return std::ranges::any_of(texts,
                             [&](std::string_view text) { return file.startsWith(text, offset); });
}

// Junk behind the last box must not be taken for a box of enormous length.
bool isBox(const Bytes& file, int64_t offset) {
  static constexpr std::array<std::string_view, 16> kTypes = {
      "ftyp", "styp", "moov", "moof", "mdat", "free", "skip", "wide",
      "mfra", "meta", "sidx", "emsg", "prft", "uuid", "udta", "pnot"};
  return startsWithOneOf(file, kTypes, offset + 4);
}

ContainerShape shapeOfMp4(const Bytes& file) {
  return walkParts(file, [&](int64_t offset) -> std::optional<uint64_t> {
    if (!isBox(file, offset)) return std::nullopt;
    const auto length = file.bigEndian<4>(offset);
    if (length == 0) return static_cast<uint64_t>(file.size() - offset);
    return length == 1 ? file.bigEndian<8>(offset + 8) : length;
  });
}

ContainerShape shapeOfRiff(const Bytes& file) {
  return walkParts(file, [&](int64_t offset) -> std::optional<uint64_t> {
    if (!file.startsWith("RIFF", offset)) return std::nullopt;
    const auto length = file.littleEndian<4>(offset + 4);
    // A recording that was never finished states no length.
    if (!length || *length == 0 || *length == UINT32_MAX) return std::nullopt;
    return 8 + *length + (*length & 1);
  });
}

struct EbmlNumber {
  uint64_t value = 0;
  int64_t width = 0;
  bool unknown = false;  // all bits set: "not stated"
};

std::optional<EbmlNumber> ebmlNumber(const Bytes& file, int64_t offset) {
  const auto first = file.at<1>(offset);
  if (!first || (*first)[0] == 0) return std::nullopt;
  EbmlNumber number;
  number.width = 1;
  for (unsigned mark = 0x80; ((*first)[0] & mark) == 0; mark >>= 1) ++number.width;
  const unsigned mask = (0x80U >> (number.width - 1)) - 1;
  number.value = (*first)[0] & mask;
  number.unknown = number.value == mask;
  for (int64_t i = 1; i < number.width; ++i) {
    const auto byte = file.at<1>(offset + i);
    if (!byte) return std::nullopt;
    number.value = number.value << 8 | (*byte)[0];
    number.unknown = number.unknown && (*byte)[0] == 0xff;
  }
  return number;
}

ContainerShape shapeOfMatroska(const Bytes& file) {
  const auto header = ebmlNumber(file, 4);
  if (!header) return {};
  const int64_t segment = 4 + header->width + static_cast<int64_t>(header->value & INT32_MAX);
  if (!file.startsWith("\x18\x53\x80\x67", segment)) return {};
  const auto length = ebmlNumber(file, segment + 4);
  if (!length || length->unknown) return {};
  return statedEnd(static_cast<uint64_t>(segment + 4 + length->width) + length->value, file.size());
}

// The header object counts its own length; the data object behind it states the rest.
ContainerShape shapeOfAsf(const Bytes& file) {
  const auto header = file.littleEndian<8>(16);
  if (!header || *header > INT64_MAX / 2) return {};
  const auto data = file.littleEndian<8>(static_cast<int64_t>(*header) + 16);
  // A live recording states no more than the object's own head.
  if (!data || *data <= 50) return {};
  return statedEnd(*header + *data, file.size());
}

// The file ends with the length of its last tag.
ContainerShape shapeOfFlv(const Bytes& file) {
  const auto last = file.bigEndian<4>(file.size() - 4);
  if (!last || *last < 11) return {};
  const int64_t tag = file.size() - 4 - static_cast<int64_t>(*last);
  const auto type = file.at<1>(tag);
  const auto length = file.bigEndian<3>(tag + 1);
  if (!type || !length) return {};
  const uint8_t kind = (*type)[0];
  const bool isTag = kind == 8 || kind == 9 || kind == 18;
  return {isTag && *length == *last - 11 ? Completeness::Whole : Completeness::Unknown, 0};
}

}  // namespace

ContainerShape examineShape(const std::string& path) {
  const Bytes file(path);
  if (isBox(file, 0)) return shapeOfMp4(file);
  if (file.startsWith("\x1a\x45\xdf\xa3")) return shapeOfMatroska(file);
  if (file.startsWith("RIFF")) return shapeOfRiff(file);
  if (file.startsWith("\x30\x26\xb2\x75")) return shapeOfAsf(file);
  if (file.startsWith("FLV")) return shapeOfFlv(file);
  return {};
}

}  // namespace runner
