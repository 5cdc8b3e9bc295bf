#pragma once

#include <map>
#include <mutex>
#include <string>

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

  void setScanning(const std::string& folder);

  // Fills what is known here for the folders that are listed.
  void fill(KxWatchStatus& status) const;

 private:
  struct State {
    KxWatchState_e state = WATCH_OFF;
    int error = 0;
  };

  mutable std::mutex m_mutex;
  std::map<std::string, State> m_states;
  std::string m_scanning;
  int64_t m_losses = 0;
  int64_t m_repaired = 0;
  int64_t m_lastLoss = 0;
  bool m_isRepairAsked = false;
};

// Names the folder that is being scanned while it lives.
class ScanningMark {
 public:
  explicit ScanningMark(const std::string& folder) { WatchHealth::instance().setScanning(folder); }
  ~ScanningMark() { WatchHealth::instance().setScanning(""); }
  ScanningMark(const ScanningMark&) = delete;
  ScanningMark& operator=(const ScanningMark&) = delete;
};
