#include "engines/DiscSource.h"

#include "probe/Folders.h"

namespace engines {

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
  m_isDisc = m_title.find(m_hostPath);
  return 0;
}

int DiscSource::probe(KxMediaInfo& info) {
  const int result = info.init(m_hostPath);
  m_watch.reset();
  return result;
}

std::string DiscSource::encoderInput() {
  return m_isDisc ? m_title.encoderInput() : m_hostPath;
}

}  // namespace engines
