#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "KxTransFileMonitor.h"

// What people can ask about folder watching: which folders are watched how well, what is being
// scanned, and whether events were lost. Any thread may use it; it calls nothing.
class WatchHealth {
 public:
  static WatchHealth& instance();

  void reset();

  // The state of one folder of the list.
  void set(const std::string& folder, KxWatchState_e state, int error = 0);
  KxWatchState_e stateOf(const std::string& folder) const;
  // Nothing is watched any more.
  void forgetStates();

  // Events were lost. True when nobody has asked for a full scan since the last loss.
  bool noteLoss();
  // A full scan begins; what was lost before is repaired when it has ended.
  int64_t beginRepair();
  void endRepair(int64_t losses);
  bool needsRepair() const;
  // The scan that was asked for will not come.
  void dropRepair();

  // Walks begin and end, also several at a time.
  void addScanning(const std::string& folder);
  void removeScanning(const std::string& folder);

  // Fills what is known here for the folders that are listed.
  void fill(KxWatchStatus& status) const;

 private:
  struct State {
    KxWatchState_e state = WATCH_OFF;
    int error = 0;
  };

  mutable std::mutex m_mutex;
  std::map<std::string, State> m_states;
  std::vector<std::string> m_scanning;
  int64_t m_losses = 0;
  int64_t m_repaired = 0;
  int64_t m_lastLoss = 0;
  bool m_isRepairAsked = false;
};

// Names a folder that is being scanned while it lives.
class ScanningMark {
 public:
  explicit ScanningMark(std::string folder) : m_folder(std::move(folder)) {
    WatchHealth::instance().addScanning(m_folder);
  }
  ~ScanningMark() { WatchHealth::instance().removeScanning(m_folder); }
  ScanningMark(const ScanningMark&) = delete;
  ScanningMark& operator=(const ScanningMark&) = delete;

 private:
  const std::string m_folder;
};
