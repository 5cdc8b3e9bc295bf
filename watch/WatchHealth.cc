#include "watch/WatchHealth.h"

#include <algorithm>
#include <ctime>

WatchHealth& WatchHealth::instance() {
  static WatchHealth health;
  return health;
}

void WatchHealth::reset() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_states.clear();
  m_scanning.clear();
  m_losses = m_repaired = m_lastLoss = 0;
  m_isRepairAsked = false;
}

void WatchHealth::set(const std::string& folder, KxWatchState_e state, int error) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_states[folder] = {state, error};
}

KxWatchState_e WatchHealth::stateOf(const std::string& folder) const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_states.find(folder);
  return found == m_states.end() ? WATCH_OFF : found->second.state;
}

void WatchHealth::forgetStates() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_states.clear();
}

bool WatchHealth::noteLoss() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  ++m_losses;
  m_lastLoss = time(nullptr);
  const bool isFirst = !m_isRepairAsked;
  m_isRepairAsked = true;
  return isFirst;
}

int64_t WatchHealth::beginRepair() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_isRepairAsked = false;
  return m_losses;
}

void WatchHealth::endRepair(int64_t losses) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (losses > m_repaired) m_repaired = losses;
}

bool WatchHealth::needsRepair() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_repaired < m_losses;
}

void WatchHealth::dropRepair() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_isRepairAsked = false;
}

void WatchHealth::addScanning(const std::string& folder) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_scanning.push_back(folder);
}

void WatchHealth::removeScanning(const std::string& folder) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = std::find(m_scanning.begin(), m_scanning.end(), folder);
  if (found != m_scanning.end()) m_scanning.erase(found);
}

void WatchHealth::fill(KxWatchStatus& status) const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_scanning.empty()) status.scanning = m_scanning.front();
  status.lostEvents = m_losses;
  status.lastLost = m_lastLoss;
  status.needsScan = m_repaired < m_losses;
  for (KxWatchedFolder& folder : status.folders) {
    const auto found = m_states.find(folder.setting.getFilePath());
    if (found == m_states.end()) continue;
    folder.state = found->second.state;
    folder.error = found->second.error;
  }
}
