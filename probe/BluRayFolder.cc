#include <algorithm>
#include <filesystem>
#include <optional>

#include "KxMediainfo.h"
#include "frame/Log.h"
#include "probe/Folders.h"

static constexpr const char* kLogSource = "KxMediainfo";

namespace {

// Name of the folder of the streams, in the disc's letter case.
std::optional<std::string> findStreamFolder(const std::string& folder) {
  std::error_code error;
  auto name = kxprobe::findEntry(folder, "STREAM");
  return name && std::filesystem::is_directory(folder + *name, error) ? name : std::nullopt;
}

}  // namespace

int KxBd::init(std::string path) {
  m_inFile = path;
  m_bdMap.clear();
  m_sampleBd = {};
  if (path.empty()) {
    KX_LOG("fullpath is empty\n");
    return 1;
  }
  const auto [folder, name] = kxprobe::splitPath(path);
  KX_LOG("path=%s, name=%s\n", folder.c_str(), name.c_str());
  if (!kxprobe::equalsIgnoringCase(name, "index.bdmv")) return 1;

  const auto entries = kxprobe::listFolder(folder);
  if (!entries) {
    KX_LOG("can not open dir %s\n", folder.c_str());
    return 1;
  }
  for (const std::string& entry : *entries) KX_LOG("checking %s ...\n", entry.c_str());
  const auto streamFolder = findStreamFolder(folder);
  if (!streamFolder) {
    KX_LOG("incorrect BD format\n");
    return 1;
  }

  const std::string streamPath = folder + *streamFolder + "/";
  const auto streams = kxprobe::listFolder(streamPath);
  if (!streams || !kxprobe::isWithin(folder, streamPath)) {
    KX_LOG("can not open dir %s\n", streamPath.c_str());
    return 1;
  }
  for (const std::string& entry : *streams)
    if (kxprobe::endsWithIgnoringCase(entry, ".m2ts")) addStream(streamPath, entry);
  return chooseSample();
}

void KxBd::addStream(const std::string& streamPath, const std::string& name) {
  static constexpr const char* kFunc = "init";
  const auto size = kxprobe::fileSizeWithin(streamPath, name);
  if (!size) {
    KX_LOG_AS(kFunc, "can not stat %s\n", (streamPath + name).c_str());
    return;
  }
  const kxBD_s stream{streamPath, name, name.substr(0, name.rfind('.')), *size};
  if (!m_bdMap.emplace(name, stream).second) {
    KX_LOG_AS(kFunc, "%s is already added in map, shouldn't happen this situation.\n",
              name.c_str());
  }
}

int KxBd::chooseSample() {
  static constexpr const char* kFunc = "init";
  for (const auto& [key, stream] : m_bdMap) {
    KX_LOG_AS(kFunc, "the map key %s, streamPath=%s, streamName=%s, streamIdx=%s, size=%ld\n",
              key.c_str(), stream.streamPath.c_str(), stream.streamName.c_str(),
              stream.streamIdx.c_str(), stream.size);
  }
  const auto biggest =
      std::max_element(m_bdMap.begin(), m_bdMap.end(),
                       [](const auto& a, const auto& b) { return a.second.size < b.second.size; });
  if (biggest == m_bdMap.end()) return 1;
  m_sampleBd = biggest->second;
  KX_LOG_AS(kFunc, "the biggest stream is=%s\n", m_sampleBd.streamName.c_str());
  return 0;
}

std::string KxBd::getSampleVideoPath() {
  if (m_sampleBd.streamPath.empty() || m_sampleBd.streamName.empty()) return "";
  return m_sampleBd.streamPath + m_sampleBd.streamName;
}
