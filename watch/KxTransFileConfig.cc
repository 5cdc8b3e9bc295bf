#include "KxTransFileConfig.h"

#include <cstdlib>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "frame/Log.h"
#include "watch/FolderFile.h"
#include "watch/FolderLookup.h"

static constexpr const char* kLogSource = "KxTransFileConfig";

using MediaLibrary::ScopedMutexLock;

KxTransFileSetting::KxTransFileSetting() = default;
KxTransFileSetting::KxTransFileSetting(std::string filePath, std::string target)
    : m_filePath(std::move(filePath)), m_target(std::move(target)) {}
KxTransFileSetting::KxTransFileSetting(std::string filePath, std::string target,
                                       std::string options)
    : m_filePath(std::move(filePath)), m_target(std::move(target)), m_options(std::move(options)) {}
KxTransFileSetting::~KxTransFileSetting() = default;

bool KxTransFileSetting::isEmpty() const {
  return m_filePath.empty();
}

void KxTransFileSetting::clear() {
  set("", "", "");
}

void KxTransFileSetting::set(std::string filePath, std::string target) {
  m_filePath = std::move(filePath);
  m_target = std::move(target);
}

void KxTransFileSetting::set(std::string filePath, std::string target, std::string options) {
  set(std::move(filePath), std::move(target));
  m_options = std::move(options);
}

void KxTransFileSetting::setFilePath(std::string filePath) {
  m_filePath = std::move(filePath);
}
void KxTransFileSetting::setTarget(std::string target) {
  m_target = std::move(target);
}
void KxTransFileSetting::setOptions(std::string options) {
  m_options = std::move(options);
}
std::string KxTransFileSetting::getFilePath() const {
  return m_filePath;
}
std::string KxTransFileSetting::getTarget() const {
  return m_target;
}
std::string KxTransFileSetting::getOptions() const {
  return m_options;
}

long long KxTransFileSetting::getTargetAsInt64() const {
  return strtol(m_target.c_str(), nullptr, 10);
}

void KxTransFileSetting::dump() const {
  KX_LOG("====== KXTRANSFILESETTING ======\n");
  KX_LOG("#path: %s\n", m_filePath.c_str());
  KX_LOG("#target: %s\n", m_target.c_str());
  KX_LOG("#options: %s\n", m_options.c_str());
  KX_LOG("====== END ======\n");
}

std::string KxTransFileSetting::outputTransFileSetting() const {
  constexpr size_t kLineLimit = 4096;  // a reader's buffer, its final NUL included
  std::string line = m_filePath + ":" + m_target + "\n";
  if (line.size() >= kLineLimit) line = line.substr(0, kLineLimit - 2) + "\n";
  return line;
}

KxTransFileConfig::KxTransFileConfig() {
  miscMutexInit(m_mutex, nullptr);
}

KxTransFileConfig::~KxTransFileConfig() {
  miscMutexDestroy(m_mutex);
}

int KxTransFileConfig::init(KxTransFileInit_s paths) {
  ScopedMutexLock lock(m_mutex);
  m_paths = std::move(paths);
  m_settings.clear();
  indexLocked();
  if (preProcess() != 0) return 1;
  const XMLNode root = XMLNode::openFileHelper(m_paths.xCodeSvrXmlPath.c_str(), FolderFile::kRoot);
  if (root.isEmpty()) {
    KX_LOG("XMLNode::openFileHelper(%s) failed!\n", m_paths.xCodeSvrXmlPath.c_str());
    return 1;
  }
  for (KxTransFileSetting& setting : FolderFile::settingsOf(root))
    m_settings.emplace(setting.getFilePath(), setting);
  indexLocked();
  return 0;
}

int KxTransFileConfig::preProcess() {
  const std::string& path = m_paths.xCodeSvrXmlPath;
  if (FolderFile::recover(path)) return 0;
  if (FolderFile::exists(path)) return 1;
  return FolderFile::write(path, FolderFile::migrated(m_paths.mediaDBXmlPath));
}

void KxTransFileConfig::indexLocked() {
  m_order.clear();
  m_byFolder.clear();
  for (const auto& [path, setting] : m_settings) {
    m_order.push_back(&setting);
    m_byFolder.emplace(FolderLookup::normalised(path), &setting);
  }
}

const KxTransFileSetting* KxTransFileConfig::findLocked(const std::string& path, bool exact) const {
  const KxTransFileSetting* found = nullptr;
  const auto accept = [&](const std::string& folder) {
    const auto entry = m_byFolder.find(folder);
    if (entry != m_byFolder.end()) found = entry->second;
    return found != nullptr || exact;
  };
  FolderLookup::climb(FolderLookup::normalised(path), accept);
  return found;
}

int KxTransFileConfig::size() {
  ScopedMutexLock lock(m_mutex);
  return static_cast<int>(m_order.size());
}

int KxTransFileConfig::getFolderSetting(unsigned int index, KxTransFileSetting& setting) {
  ScopedMutexLock lock(m_mutex);
  if (index >= m_order.size()) return 1;
  setting = *m_order[index];
  return 0;
}

int KxTransFileConfig::getFolderSetting(std::string path, KxTransFileSetting& setting, bool exact) {
  ScopedMutexLock lock(m_mutex);
  const KxTransFileSetting* found = findLocked(path, exact);
  if (found == nullptr) return 1;
  setting = *found;
  return 0;
}

std::string KxTransFileConfig::getTarget(const std::string& path) {
  ScopedMutexLock lock(m_mutex);
  const KxTransFileSetting* found = findLocked(path, false);
  return found == nullptr ? "" : found->getTarget();
}

std::vector<KxTransFileSetting> KxTransFileConfig::getFolderSettings() {
  ScopedMutexLock lock(m_mutex);
  std::vector<KxTransFileSetting> settings;
  for (const KxTransFileSetting* setting : m_order) settings.push_back(*setting);
  return settings;
}

int KxTransFileConfig::addFolder(KxTransFileSetting setting) {
  ScopedMutexLock lock(m_mutex);
  if (setting.isEmpty() || findLocked(setting.getFilePath(), true) != nullptr) return 1;
  m_settings.emplace(setting.getFilePath(), setting);
  indexLocked();
  return updateTranscodeXmlLocked();
}

int KxTransFileConfig::updateFolder(KxTransFileSetting setting) {
  ScopedMutexLock lock(m_mutex);
  const KxTransFileSetting* found = findLocked(setting.getFilePath(), true);
  if (found == nullptr) return 1;
  setting.setFilePath(found->getFilePath());
  m_settings[setting.getFilePath()] = setting;
  return updateTranscodeXmlLocked();
}

int KxTransFileConfig::delFolder(std::string path) {
  ScopedMutexLock lock(m_mutex);
  const KxTransFileSetting* found = findLocked(path, true);
  if (found == nullptr) return 1;
  m_settings.erase(std::string(found->getFilePath()));
  indexLocked();
  return updateTranscodeXmlLocked();
}

void KxTransFileConfig::dump() {
  ScopedMutexLock lock(m_mutex);
  for (const KxTransFileSetting* setting : m_order) setting->dump();
}

int KxTransFileConfig::updateTranscodeXml() {
  ScopedMutexLock lock(m_mutex);
  return updateTranscodeXmlLocked();
}

int KxTransFileConfig::updateTranscodeXmlLocked() {
  XMLNode root = FolderFile::emptyDocument();
  for (const KxTransFileSetting* setting : m_order) FolderFile::append(root, *setting);
  return FolderFile::replace(m_paths.xCodeSvrXmlPath, root);
}
