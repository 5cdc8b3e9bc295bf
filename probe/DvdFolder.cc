#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include "KxMediainfo.h"
#include "frame/Log.h"
#include "probe/Folders.h"

static constexpr const char* kLogSource = "KxMediainfo";

namespace {

// A title set has at most 9 parts. The bound only keeps a hostile name from making everybody
// who counts up to the highest part number count for ever.
constexpr int kMaxPartNumber = 99;

struct VobName {
  std::string prefix;  // before the first underscore
  std::string middle;  // "nn_k"
  std::string suffix;  // the extension with its dot
};

std::optional<VobName> takeApart(const std::string& name) {
  const size_t underscore = name.find('_');
  const size_t dot = name.rfind('.');
  if (underscore == std::string::npos || underscore == 0) return std::nullopt;
  if (dot == std::string::npos || dot <= underscore) return std::nullopt;
  return VobName{name.substr(0, underscore), name.substr(underscore + 1, dot - underscore - 1),
                 name.substr(dot)};
}

struct VobNumbers {
  std::string titleSet;
  int part;
};

std::optional<VobNumbers> parseNumbers(const std::string& middle) {
  const size_t underscore = middle.find('_');
  if (underscore == std::string::npos || underscore == 0) return std::nullopt;
  if (middle.find_first_not_of("0123456789") != underscore) return std::nullopt;
  const char* const end = middle.data() + middle.size();
  VobNumbers numbers{middle.substr(0, underscore), 0};
  const auto [stop, error] = std::from_chars(middle.data() + underscore + 1, end, numbers.part);
  if (error != std::errc() || stop != end || numbers.part > kMaxPartNumber) return std::nullopt;
  return numbers;
}

std::string partName(const kxDVD_s& set, int part) {
  return set.vobVTSPrefix + "_" + set.VTS + "_" + std::to_string(part) + set.vobSuffix;
}

bool looksLikeTitlePart(const std::string& name) {
  return kxprobe::containsIgnoringCase(name, "VTS_") && kxprobe::endsWithIgnoringCase(name, ".VOB");
}

}  // namespace

int KxDvd::init(std::string path) {
  m_inFile = path;
  m_dvdMap.clear();
  m_sampleDvd = {};
  if (path.empty()) {
    KX_LOG("fullpath is empty\n");
    return 1;
  }
  const auto [folder, name] = kxprobe::splitPath(path);
  KX_LOG("path=%s, name=%s\n", folder.c_str(), name.c_str());
  if (!kxprobe::equalsIgnoringCase(name, "VIDEO_TS.IFO")) {
    KX_LOG("%s is not dvd\n", name.c_str());
    return 1;
  }
  const auto names = kxprobe::listFolder(folder);
  if (!names) {
    KX_LOG("can not open dir %s\n", folder.c_str());
    return 1;
  }
  for (const std::string& entry : *names)
    if (looksLikeTitlePart(entry)) addPart(folder, entry);
  return chooseSample();
}

void KxDvd::addPart(const std::string& folder, const std::string& name) {
  static constexpr const char* kFunc = "init";
  const auto vob = takeApart(name);
  if (!vob) {
    KX_LOG_AS(kFunc, "can not parse file %s\n", name.c_str());
    return;
  }
  const auto numbers = parseNumbers(vob->middle);
  if (!numbers) {
    KX_LOG_AS(kFunc, "can not parse the VTS or cntNo of %s\n", name.c_str());
    return;
  }
  if (numbers->part <= 0) {
    KX_LOG_AS(kFunc, "strCntNo <= 0, continue\n");
    return;
  }
  const auto size = kxprobe::fileSizeWithin(folder, name);
  if (!size) {
    KX_LOG_AS(kFunc, "can not stat %s\n", (folder + name).c_str());
    return;
  }
  auto entry = m_dvdMap.find(numbers->titleSet);
  if (entry == m_dvdMap.end()) {
    const auto [position, added] = m_dvdMap.emplace(
        numbers->titleSet, kxDVD_s{0, 0, numbers->titleSet, folder, vob->prefix, vob->suffix});
    if (!added) {
      KX_LOG_AS(kFunc, "something wrong in map!!!\n");
      return;
    }
    entry = position;
  }
  entry->second.size += *size;
  entry->second.cntNo = std::max(entry->second.cntNo, numbers->part);
}

int KxDvd::chooseSample() {
  static constexpr const char* kFunc = "init";
  for (const auto& [key, set] : m_dvdMap) {
    KX_LOG_AS(kFunc,
              "the map key %s, VTS=%s, cntNo=%d, size=%ld, vobPath=%s, vobVTSPrefix=%s,"
              "vobSuffix=%s\n",
              key.c_str(), set.VTS.c_str(), set.cntNo, set.size, set.vobPath.c_str(),
              set.vobVTSPrefix.c_str(), set.vobSuffix.c_str());
  }
  const auto biggest =
      std::max_element(m_dvdMap.begin(), m_dvdMap.end(),
                       [](const auto& a, const auto& b) { return a.second.size < b.second.size; });
  if (biggest == m_dvdMap.end()) {
    KX_LOG_AS(kFunc, "the biggest VTS is empty");
    return 1;
  }
  m_sampleDvd = biggest->second;
  KX_LOG_AS(kFunc, "the biggest VTS=%s\n", m_sampleDvd.VTS.c_str());
  return 0;
}

std::string KxDvd::getSampleVideoPath() {
  const kxDVD_s& set = m_sampleDvd;
  if (set.vobPath.empty() || set.vobVTSPrefix.empty() || set.VTS.empty() || set.vobSuffix.empty())
    return "";
  return set.vobPath + partName(set, 1);
}

std::vector<std::string> KxDvd::getTitleParts() const {
  std::vector<std::string> parts;
  for (int part = 1; part <= m_sampleDvd.cntNo; ++part) {
    const std::string name = partName(m_sampleDvd, part);
    if (kxprobe::fileSizeWithin(m_sampleDvd.vobPath, name))
      parts.push_back(m_sampleDvd.vobPath + name);
  }
  return parts;
}

void KxDvd::dumpSampleDvdInfo() {
  KX_LOG("m_inFile=%s\n", m_inFile.c_str());
  KX_LOG("m_sampleDvd.size=%ld\n", m_sampleDvd.size);
  KX_LOG("m_sampleDvd.cntNo=%d\n", m_sampleDvd.cntNo);
  KX_LOG("m_sampleDvd.VTS=%s\n", m_sampleDvd.VTS.c_str());
  KX_LOG("m_sampleDvd.vobPath=%s\n", m_sampleDvd.vobPath.c_str());
  KX_LOG("m_sampleDvd.vobVTSPrefix=%s\n", m_sampleDvd.vobVTSPrefix.c_str());
  KX_LOG("m_sampleDvd.vobSuffix=%s\n", m_sampleDvd.vobSuffix.c_str());
}
