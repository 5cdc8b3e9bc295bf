#include "probe/DiscCheck.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "KxMediainfo.h"
#include "frame/UniqueFd.h"
#include "probe/Folders.h"

namespace kxprobe {
namespace {

constexpr int64_t kSectorSize = 2048;        // of a DVD
constexpr int64_t kSourcePacketSize = 192;   // of a Blu-ray stream
constexpr int64_t kToleratedHundredths = 2;  // of a title that may be missing

std::optional<UniqueFd> openRegular(const std::string& path) {
  struct stat info {};
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return fd;
}

// The first bytes of a structure file; its numbers are stored highest byte first.
class StructureHead {
 public:
  explicit StructureHead(const std::string& path) {
    const auto fd = openRegular(path);
    const ssize_t count = fd ? pread(fd->get(), m_bytes.data(), m_bytes.size(), 0) : 0;
    m_isWhole = count == static_cast<ssize_t>(m_bytes.size());
  }
  bool startsWith(std::string_view mark) const {
    return m_isWhole &&
           std::string_view(reinterpret_cast<const char*>(m_bytes.data()), mark.size()) == mark;
  }
  int64_t number(size_t at) const {
    return int64_t{m_bytes[at]} << 24 | m_bytes[at + 1] << 16 | m_bytes[at + 2] << 8 |
           m_bytes[at + 3];
  }

 private:
  std::array<unsigned char, 256> m_bytes{};
  bool m_isWhole = false;
};

// Bytes of all parts of a title set, from its table: the set ends with a copy of the table.
std::optional<int64_t> statedSetSize(const std::string& table) {
  const StructureHead head(table);
  if (!head.startsWith("DVDVIDEO-VTS")) return std::nullopt;
  const int64_t lastOfSet = head.number(0x0c);
  const int64_t lastOfTable = head.number(0x1c);
  const int64_t firstOfTitle = head.number(0xc4);
  const int64_t sectors = lastOfSet - lastOfTable - firstOfTitle;
  if (firstOfTitle <= lastOfTable || sectors <= 0) return std::nullopt;
  return sectors * kSectorSize;
}

std::optional<int64_t> statedClipSize(const std::string& clipInfo) {
  const StructureHead head(clipInfo);
  if (!head.startsWith("HDMV")) return std::nullopt;
  const int64_t packets = head.number(56);
  if (packets <= 0) return std::nullopt;
  return packets * kSourcePacketSize;
}

std::string sizeFault(const std::string& what, int64_t present, std::optional<int64_t> stated) {
  if (!stated || *stated - present <= *stated / 100 * kToleratedHundredths) return "";
  return what + " is cut off: " + std::to_string(*stated - present) + " bytes are missing";
}

// What is cut off an image is missed only by who reads there.
bool canBeReadToItsEnd(const std::string& path) {
  struct stat info {};
  const auto fd = openRegular(path);
  if (!fd || fstat(fd->get(), &info) != 0) return false;
  char last = 0;
  return info.st_size == 0 || pread(fd->get(), &last, 1, info.st_size - 1) == 1;
}

std::string endFault(const std::vector<std::string>& files) {
  for (const std::string& file : files)
    if (!canBeReadToItsEnd(file)) return splitPath(file).name + " cannot be read to its end";
  return "";
}

std::string tableOf(const kxDVD_s& set, const char* extension) {
  const auto name =
      findEntry(set.vobPath, set.vobVTSPrefix + "_" + set.VTS + "_0" + std::string(extension));
  return name ? set.vobPath + *name : "";
}

std::optional<int64_t> statedSize(const kxDVD_s& set) {
  const auto size = statedSetSize(tableOf(set, ".IFO"));
  return size ? size : statedSetSize(tableOf(set, ".BUP"));
}

std::string missingPart(const kxDVD_s& set) {
  for (int part = 1; part <= set.cntNo; ++part) {
    std::string name =
        set.vobVTSPrefix + "_" + set.VTS + "_" + std::to_string(part) + set.vobSuffix;
    if (!fileSizeWithin(set.vobPath, name)) return name;
  }
  return "";
}

std::string dvdFault(const std::string& index) {
  KxDvd dvd;
  if (dvd.init(index) != 0) return "the DVD holds no part of a title (VTS_nn_k.VOB)";
  const kxDVD_s& set = dvd.getSampleDvd();
  const std::string missing = missingPart(set);
  if (!missing.empty()) return "a part of the DVD's main title is missing: " + missing;
  if (set.size == 0) return "the DVD's main title is empty";
  const std::string fault =
      sizeFault("the DVD's main title (title set " + set.VTS + ")", set.size, statedSize(set));
  return fault.empty() ? endFault(dvd.getTitleParts()) : fault;
}

std::string clipInfoBelow(const std::string& folder, const std::string& name) {
  const auto clips = findEntry(folder, "CLIPINF");
  const auto clip = clips ? findEntry(folder + *clips, name) : std::nullopt;
  return clip ? folder + *clips + "/" + *clip : "";
}

// From the clip information, or from its backup when that cannot be read.
std::optional<int64_t> statedStreamSize(const std::string& index, const std::string& stream) {
  const std::string folder = splitPath(index).folder;
  const std::string clip = stream.substr(0, stream.rfind('.')) + ".clpi";
  const auto size = statedClipSize(clipInfoBelow(folder, clip));
  const auto backup = findEntry(folder, "BACKUP");
  if (size || !backup) return size;
  return statedClipSize(clipInfoBelow(folder + *backup + "/", clip));
}

std::string bluRayFault(const std::string& index) {
  KxBd bd;
  if (bd.init(index) != 0) return "the Blu-ray disc holds no stream (BDMV/STREAM/*.m2ts)";
  const std::string stream = bd.getSampleVideoPath();
  const SplitPath path = splitPath(stream);
  const auto size = fileSizeWithin(path.folder, path.name);
  if (!size || *size == 0) return "the Blu-ray disc's main stream is empty: " + path.name;
  const std::string fault = sizeFault("the Blu-ray disc's main stream " + path.name, *size,
                                      statedStreamSize(index, path.name));
  return fault.empty() ? endFault({stream}) : fault;
}

// People name the folder of the files where the one above is the disc.
bool isFolderBelowTop(const std::string& path, const DiscKind& kind) {
  const std::string folder = path.ends_with('/') ? path : path + "/";
  const std::string name = splitPath(folder.substr(0, folder.size() - 1)).name;
  return equalsIgnoringCase(name, kind.folder) && findEntry(folder, kind.index).has_value();
}

}  // namespace

std::string discFault(const std::string& path) {
  const std::string name = splitPath(path).name;
  if (equalsIgnoringCase(name, kDvd.index)) return dvdFault(path);
  if (equalsIgnoringCase(name, kBluRay.index)) return bluRayFault(path);
  const auto dvd = findDiscIndex(path, kDvd);
  const auto bluRay = findDiscIndex(path, kBluRay);
  // A disc of both kinds is taken for the one that it has a title of, as it is probed.
  if (dvd && (!bluRay || KxDvd().init(*dvd) == 0)) return dvdFault(*dvd);
  if (bluRay) return bluRayFault(*bluRay);
  for (const DiscKind& kind : {kDvd, kBluRay}) {
    if (isFolderBelowTop(path, kind))
      return std::string("the disc is the folder that holds ") + kind.folder;
    if (findEntry(path, kind.folder))
      return std::string("the disc has no ") + kind.folder + "/" + kind.index;
  }
  return "the source holds neither a DVD (VIDEO_TS) nor a Blu-ray disc (BDMV)";
}

}  // namespace kxprobe
