#include "tests/support/Discs.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace kxtest {
namespace {

constexpr size_t kSector = 2048;
constexpr uint32_t kTableSectors = 2;

using Words = std::vector<std::string>;

void makeStream(const std::string& path, double seconds, const std::string& colour,
                const Words& form) {
  const std::string length = std::to_string(seconds);
  Words argv =
      quietFfmpeg({"-f", "lavfi", "-i", "color=c=" + colour + ":s=352x288:r=25:d=" + length, "-f",
                   "lavfi", "-i", "sine=f=440:r=48000:d=" + length});
  argv.insert(argv.end(), form.begin(), form.end());
  argv.push_back(path);
  if (!run(argv)) throw std::runtime_error("ffmpeg cannot make " + path);
}

// A file of a structure, its numbers written highest byte first.
class Structure {
 public:
  Structure(size_t size, const std::string& mark) : m_bytes(size, '\0') { put(0, mark); }
  Structure& put(size_t at, const std::string& text) {
    m_bytes.replace(at, text.size(), text);
    return *this;
  }
  Structure& put(size_t at, uint64_t value, size_t bytes) {
    for (size_t i = bytes; i-- > 0; value >>= 8) m_bytes[at + i] = static_cast<char>(value & 0xff);
    return *this;
  }
  void write(const std::string& path) const { writeFile(path, m_bytes); }

 private:
  std::string m_bytes;
};

std::string changeCase(std::string text, int (*change)(int)) {
  std::ranges::transform(text, text.begin(),
                         [change](unsigned char c) { return static_cast<char>(change(c)); });
  return text;
}

std::string twoDigits(int number) {
  return (number < 10 ? "0" : "") + std::to_string(number);
}

uint32_t sectorsOf(const std::string& path) {
  std::error_code absent;
  const auto size = fs::file_size(path, absent);
  return absent ? 0 : static_cast<uint32_t>((size + kSector - 1) / kSector);
}

// Turns an image with both file systems into one with UDF alone: its list of descriptors
// starts with those of UDF then.
void dropIso9660(const std::string& image) {
  std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
  std::vector<std::string> kept;
  std::string sector(kSector, '\0');
  constexpr std::streamoff kFirst = 16 * kSector;
  size_t count = 0;
  for (file.seekg(kFirst); file.read(sector.data(), kSector); ++count) {
    const std::string mark = sector.substr(1, 5);
    if (mark == "BEA01" || mark == "NSR02" || mark == "NSR03" || mark == "TEA01") {
      kept.push_back(sector);
    } else if (mark != "CD001") {
      break;
    }
  }
  kept.resize(count, std::string(kSector, '\0'));
  file.clear();
  file.seekp(kFirst);
  for (const std::string& text : kept) file.write(text.data(), kSector);
}

}  // namespace

void makeVob(const std::string& path, double seconds, const std::string& colour) {
  makeStream(path, seconds, colour,
             {"-c:v", "mpeg2video", "-b:v", "1500k", "-g", "12", "-c:a", "ac3", "-f", "dvd"});
}

void makeM2ts(const std::string& path, double seconds, const std::string& colour) {
  makeStream(path, seconds, colour,
             {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "ac3", "-f",
              "mpegts", "-mpegts_m2ts_mode", "1"});
}

DvdFolder::DvdFolder(std::string top, Names names) : m_top(std::move(top)), m_names(names) {
  fs::create_directories(fs::path(file("VIDEO_TS.IFO")).parent_path());
  for (const char* name : {"VIDEO_TS.IFO", "VIDEO_TS.BUP"})
    Structure(kTableSectors * kSector, "DVDVIDEO-VMG").write(file(name));
}

std::string DvdFolder::file(const std::string& name) const {
  const std::string path = "VIDEO_TS/" + name;
  return m_top + "/" + changeCase(path, m_names == Names::Small ? tolower : toupper);
}

std::string DvdFolder::part(int set, int number) const {
  return file("VTS_" + twoDigits(set) + "_" + std::to_string(number) + ".VOB");
}

void DvdFolder::addTitleSet(int set, const std::vector<std::string>& colours, double seconds,
                            double menuSeconds) const {
  makeVob(part(set, 0), menuSeconds, "white");
  int number = 1;
  for (const std::string& colour : colours) makeVob(part(set, number++), seconds, colour);
  writeTable(set);
}

void DvdFolder::writeTable(int set) const {
  const uint32_t menu = sectorsOf(part(set, 0));
  uint32_t title = 0;
  for (int number = 1; number <= 9; ++number) title += sectorsOf(part(set, number));
  const uint32_t firstOfTitle = kTableSectors + menu;
  Structure table(kTableSectors * kSector, "DVDVIDEO-VTS");
  table.put(0x0c, firstOfTitle + title + kTableSectors - 1, 4)
      .put(0x1c, kTableSectors - 1, 4)
      .put(0xc0, menu > 0 ? kTableSectors : 0, 4)
      .put(0xc4, firstOfTitle, 4);
  const std::string name = "VTS_" + twoDigits(set) + "_0.";
  for (const char* extension : {"IFO", "BUP"}) table.write(file(name + extension));
}

BluRayFolder::BluRayFolder(std::string top) : m_top(std::move(top)) {
  for (const char* base : {"", "BACKUP/"}) {
    for (const char* folder : {"PLAYLIST", "CLIPINF"})
      fs::create_directories(file(base + std::string(folder)));
    Structure(120, "INDX0200").write(file(std::string(base) + "index.bdmv"));
    Structure(120, "MOBJ0200").write(file(std::string(base) + "MovieObject.bdmv"));
  }
  fs::create_directories(file("STREAM"));
}

void BluRayFolder::addStream(const std::string& clip, double seconds,
                             const std::string& colour) const {
  makeM2ts(stream(clip), seconds, colour);
  const uint64_t packets = fs::file_size(stream(clip)) / 192;
  for (const std::string base : {"", "BACKUP/"}) {
    Structure(256, "HDMV0200")
        .put(40, 176, 4)
        .put(46, 1, 1)
        .put(47, 1, 1)
        .put(56, packets, 4)
        .write(file(std::string(base).append("CLIPINF/").append(clip).append(".clpi")));
    Structure(128, "MPLS0200")
        .put(60, clip + "M2TS")
        .write(file(std::string(base).append("PLAYLIST/").append(clip).append(".mpls")));
  }
}

const char* nameOf(Image kind) {
  switch (kind) {
  case Image::Bridge:
    return "bridge";
  case Image::Udf:
    return "udf";
  case Image::Plain:
    return "plain";
  default:
    return "rockridge";
  }
}

bool makeImage(const std::string& folder, const std::string& image, Image kind,
               const std::vector<std::string>& options) {
  Words argv = {"genisoimage", "-quiet", "-o", image};
  if (kind == Image::Bridge || kind == Image::Udf) argv.emplace_back("-udf");
  if (kind == Image::RockRidge) argv.emplace_back("-R");
  argv.insert(argv.end(), options.begin(), options.end());
  argv.push_back(folder);
  if (!run(argv)) return false;
  if (kind == Image::Udf) dropIso9660(image);
  return true;
}

bool canMountImages() {
  return access("/dev/fuse", R_OK | W_OK) == 0;
}

std::vector<std::string> mountsBelow(const std::string& folder) {
  std::vector<std::string> found;
  std::ifstream mounts("/proc/mounts");
  for (std::string device, point, rest; mounts >> device >> point; std::getline(mounts, rest))
    if (point.starts_with(folder)) found.push_back(point);
  return found;
}

std::string colourAt(const std::string& video, double seconds) {
  const auto pixel = run(quietFfmpeg({"-ss", std::to_string(seconds), "-i", video, "-frames:v", "1",
                                      "-vf", "scale=1:1,format=rgb24", "-f", "rawvideo", "-"}));
  if (!pixel || pixel->size() != 3) return "none";
  const auto largest = std::ranges::max_element(*pixel, [](char a, char b) {
    return static_cast<unsigned char>(a) < static_cast<unsigned char>(b);
  });
  static constexpr const char* kNames[] = {"red", "green", "blue"};
  return kNames[largest - pixel->begin()];
}

}  // namespace kxtest
