#include "engines/DiscSource.h"

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

int DiscSource::attach(const std::string& path) {
  m_mount.release();
  m_hostPath = path;
  m_addOnPath = path;
  if (kxprobe::endsWithIgnoringCase(path, ".iso")) {
    m_watch.emplace([this] { m_mount.abandon(); });
    if (m_mount.mount(path) != 0) return 1;
    m_hostPath = m_mount.hostFolder();
    m_addOnPath = m_mount.addOnFolder();
  }
  findDisc();
  return 0;
}

int DiscSource::probe(KxMediaInfo& info) {
  const int result = info.init(m_hostPath);
  m_watch.reset();
  return result;
}

void DiscSource::findDisc() {
  const std::string dvdIndex = discIndex(m_hostPath, kxprobe::kDvd);
  const std::string bluRayIndex = discIndex(m_hostPath, kxprobe::kBluRay);
  m_disc = Disc::None;
  if (!dvdIndex.empty() && m_dvd.init(dvdIndex) == 0) {
    m_disc = Disc::Dvd;
  } else if (!bluRayIndex.empty() && m_bd.init(bluRayIndex) == 0) {
    m_disc = Disc::BluRay;
  }
}

std::vector<std::string> DiscSource::titleFiles() {
  if (m_disc == Disc::Dvd) return m_dvd.getTitleParts();
  if (m_disc == Disc::BluRay) return {m_bd.getSampleVideoPath()};
  return {};
}

std::string DiscSource::encoderInput() {
  if (m_disc == Disc::BluRay) return m_bd.getSampleVideoPath();
  if (m_disc != Disc::Dvd) return m_hostPath;
  std::string input;
  for (const std::string& part : m_dvd.getTitleParts()) {
    if (part.find('|') != std::string::npos) {
      KX_LOG_AS("getSWFfmpegFilenameInput", "can not join %s, its name holds the separator\n",
                part.c_str());
      return "";
    }
    input += (input.empty() ? "concat:" : "|") + part;
  }
  return input;
}

}  // namespace engines
