#include "engines/DiscTitle.h"

#include "frame/Log.h"
#include "probe/Folders.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace engines {
namespace {

// The index of a disc folder, or the path when it names one itself; empty when there is none.
std::string discIndex(const std::string& path, const kxprobe::DiscKind& kind) {
  if (kxprobe::equalsIgnoringCase(kxprobe::splitPath(path).name, kind.index)) return path;
  return kxprobe::findDiscIndex(path, kind).value_or("");
}

}  // namespace

bool DiscTitle::find(const std::string& path) {
  const std::string dvdIndex = discIndex(path, kxprobe::kDvd);
  const std::string bluRayIndex = discIndex(path, kxprobe::kBluRay);
  m_kind = Kind::None;
  if (!dvdIndex.empty() && m_dvd.init(dvdIndex) == 0) {
    m_kind = Kind::Dvd;
  } else if (!bluRayIndex.empty() && m_bd.init(bluRayIndex) == 0) {
    m_kind = Kind::BluRay;
  }
  return m_kind != Kind::None;
}

std::vector<std::string> DiscTitle::files() {
  if (m_kind == Kind::Dvd) return m_dvd.getTitleParts();
  if (m_kind == Kind::BluRay) return {m_bd.getSampleVideoPath()};
  return {};
}

std::string DiscTitle::encoderInput() {
  if (m_kind == Kind::BluRay) return m_bd.getSampleVideoPath();
  std::string input;
  for (const std::string& part : files()) {
    if (part.find('|') != std::string::npos) {
      KX_LOG_AS("getSWFfmpegFilenameInput", "can not join %s, its name holds the separator\n",
                part.c_str());
      return "";
    }
    input += (input.empty() ? "concat:" : "|") + part;
  }
  return input;
}

std::vector<std::string> DiscTitle::readingOptions() const {
  if (m_kind != Kind::Dvd) return {};
  return dvdReadingOptions();
}

// The time stamps of a DVD's title begin anew where its scenes were joined. An encoder that
// takes a jump of some seconds for a pause adds that pause to the result.
std::vector<std::string> dvdReadingOptions() {
  return {"-dts_delta_threshold", "1"};
}

}  // namespace engines
