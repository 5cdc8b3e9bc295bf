#pragma once
/// @file
/// The worker for one job.

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include "KxDBTask.h"
#include "KxRegister.h"

/// States of a unit.
enum KxUnitState_e : int32_t {
  UNIT_UNDEFINED = 0,
  UNIT_ALREADY_INIT = 1,
  UNIT_START = 2,
  UNIT_STOP = 3,
  UNIT_PENDING = 4,
  UNIT_FINISH = 5,
};

/// A unit holds one job and, while it runs, one detached runner thread.
///
/// Every operation takes the unit's own mutex. Lock order: manager, unit, job store.
/// A copy (for status queries) locks its source, has a mutex of its own and owns no thread.
class KxTranscodeUnit2 {
 public:
  KxTranscodeUnit2();
  KxTranscodeUnit2(const KxTranscodeUnit2& other);
  KxTranscodeUnit2& operator=(const KxTranscodeUnit2& other) = delete;
  ~KxTranscodeUnit2();

  int init(KxDBTask& task);
  int start();
  int stop();
  int pending();
  void dump();

  // Status queries; each takes the mutex.
  KxUnitState_e getState() const;
  KxDBTask getTask() const;
  KxRegister getReg() const;
  int getPid() const;
  int getProgress() const;  ///< percent of the current profile
  /// True when the unit is finished and no runner thread works on it any more.
  bool isReapable() const;

  // For the runner thread.

  /// What a runner must do, as seen by the run with this generation. A runner of an older
  /// generation always sees UNIT_PENDING, so it leaves without writing anything.
  KxUnitState_e stateFor(unsigned generation) const;
  void setReg(unsigned generation, const KxRegister& reg);
  void setPid(unsigned generation, int pid);
  void setProgress(unsigned generation, int percent);
  /// Last act of a runner: leaves the unit, in state finish unless the unit is pending or
  /// has been started again. The unit may be freed as soon as this returns.
  void leave(unsigned generation);

 private:
  struct RunnerArg;
  friend void* unitBGTranscodeThread(void* arg);
  int launchRunnerLocked();
  int writeBackAsWaitingLocked();

  bool m_isEmpty;
  mutable pthread_mutex_t m_mutex;
  KxUnitState_e m_status;
  KxRegister m_reg;
  KxDBTask m_task;
  pthread_t m_tid;
  int32_t m_pid;
  int32_t m_progress;
  unsigned m_generation;
  int m_liveRunners;
};

/// Where one profile of a job puts its result.
struct KxJobOutput {
  std::string profile;
  std::string path;  ///< the result itself
  std::string link;  ///< the link beside the thumbnails; empty for audio
};

/// Results that a job with this record produces, in the order of the profile table.
/// A pure function of the record; nothing is looked up on disk.
std::vector<KxJobOutput> kxJobOutputs(const KxDBTaskParam& job);

/// Thread routine of a unit's runner. @param arg a `KxTranscodeUnit2`; NULL ends at once.
void* unitBGTranscodeThread(void* arg);
