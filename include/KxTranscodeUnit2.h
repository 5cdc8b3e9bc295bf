#pragma once
/// @file
/// The worker for one job.

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "KxDBTask.h"
#include "KxRegister.h"

/// States of a unit.
enum KxUnitState_e : int32_t {
  UNIT_UNDEFINED = 0,     ///< constructed, no job yet
  UNIT_ALREADY_INIT = 1,  ///< holds a job, no runner yet
  UNIT_START = 2,         ///< a runner works on the job
  UNIT_STOP = 3,          ///< a stop was asked for; the runner winds down
  UNIT_PENDING = 4,       ///< suspended; the runner leaves the job unfinished
  UNIT_FINISH = 5,        ///< done, whatever the outcome
};

/// One run of a unit's runner thread, as KxTranscodeUnit2::beginRun() hands it out.
struct KxUnitRun {
  unsigned generation = 0;  ///< names the run in all later calls; 0 when no run was started
  KxDBTask task;            ///< the runner's own copy of the job
  /// Readable (POLLIN) as soon as the run has to end, and from then on; for poll() beside
  /// descriptors of child processes. Never read it and never close it: it is the unit's and
  /// stays open until leave(). -1 when none could be made; poll() ignores that, so poll with
  /// a time-out and ask stateFor().
  int endFd = -1;
};

enum class UnitCall;

/// A unit holds one job and, while it runs, one detached runner thread.
///
/// Every operation takes the unit's own mutex, so all of them may be called from any thread.
/// Lock order: manager, unit, job store; the unit mutex is never taken while the job store's
/// lock is held. Results are 0 on success and 1 on failure unless said otherwise.
///
/// Every start() begins a new run with a generation of its own. A runner that was suspended
/// may still be winding down when the next one begins, so the unit counts the runners that
/// have not left yet, and only the newest run can change what the unit shows.
///
/// A copy (for status queries) locks its source, has a mutex of its own, owns no thread and
/// cannot be started.
class KxTranscodeUnit2 {
 public:
  KxTranscodeUnit2();
  KxTranscodeUnit2(const KxTranscodeUnit2& other);
  KxTranscodeUnit2& operator=(const KxTranscodeUnit2& other) = delete;
  /// No runner may be working on the unit any more, see isReapable().
  ~KxTranscodeUnit2();

  /// Gives the unit its job, once. Fails for an empty job and for a unit that has one.
  int init(KxDBTask& task);
  /// Starts the runner, or resumes a suspended job with a new one.
  /// @return 0 also when it is running already; 1 for a stopped or finished unit; the error
  /// number when no thread can be created, the unit is finished then.
  int start();
  /// Asks a running job to end; finishes a unit that is not running. A suspended job is
  /// written back to the job store as waiting. @return 1 for a finished unit.
  int stop();
  /// Suspends a running job; a unit that never ran is finished instead.
  /// @return 1 for a stopped or finished unit.
  int pending();
  void dump();

  // Status queries; each takes the mutex.
  KxUnitState_e getState() const;
  KxDBTask getTask() const;
  /// The registration that the current run shows; empty when it holds none.
  KxRegister getReg() const;
  /// Process id of the current child process, -1 when there is none.
  int getPid() const;
  /// Percent of the current profile, 0..100.
  int getProgress() const;
  /// True when the unit is finished and no runner works on it any more: it may be freed.
  bool isReapable() const;
  /// Number of runners that have not left yet.
  int getLiveRunners() const;

  /// Told of every run that has left its unit, so that a host need not keep asking.
  using LeaveListener = void (*)(void* context);
  /// Sets the one listener of the process; null for none. It is called on the runner's thread
  /// after its last act on the unit, without any lock of the library but one of its own, and
  /// has to be quick. When this returns, the earlier listener is not called any more.
  static void setLeaveListener(LeaveListener listener, void* context);

  // For the runner thread, in this order: beginRun() once, waitForTurn(), any of the others,
  // leave() once, on every path.

  /// First act of a runner: takes over the run that was started for it.
  KxUnitRun beginRun();
  /// Waits until no earlier run works on the unit, so that two runs never share outputs or a
  /// registration. Returns at once when this run has to end. @return stateFor(generation)
  KxUnitState_e waitForTurn(unsigned generation);
  /// What this run has to do: UNIT_START go on; UNIT_STOP end the job and write its row;
  /// UNIT_PENDING leave without writing anything. A run that is not the newest, or whose
  /// unit was finished meanwhile, sees UNIT_PENDING; no other value is ever returned.
  KxUnitState_e stateFor(unsigned generation) const;
  /// Waits until the run has to end, or for the given time. A stop or a suspension ends the
  /// wait at once. @param milliseconds 0 or more @return stateFor(generation)
  KxUnitState_e waitWhileRunning(unsigned generation, int milliseconds) const;
  /// What the unit shows to others. Ignored when the run is not the newest.
  /// setReg() with an empty registration clears it; setPid(-1) likewise.
  void setReg(unsigned generation, const KxRegister& reg);
  void setPid(unsigned generation, int pid);
  /// @param percent is brought into 0..100
  void setProgress(unsigned generation, int percent);
  /// Last act of a runner: the newest run finishes the unit unless it is suspended. The unit
  /// may be freed as soon as this returns, so nothing of it may be touched afterwards.
  void leave(unsigned generation);

 private:
  class Runs;

  int change(UnitCall call, const char* function);
  int launchRunnerLocked();
  void leaveQuietly(unsigned generation);
  void writeBackAsWaitingLocked();
  KxUnitState_e stateForLocked(unsigned generation) const;
  bool isNewestLocked(unsigned generation) const;

  bool m_isEmpty;
  mutable pthread_mutex_t m_mutex;
  KxUnitState_e m_status;
  KxRegister m_reg;
  KxDBTask m_task;
  pthread_t m_tid;  ///< -1 when there is no runner
  int32_t m_pid;
  int32_t m_progress;
  unsigned m_generation;         ///< of the newest run; 0 before the first
  std::unique_ptr<Runs> m_runs;  ///< runs that have not ended; none in a copy
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

/// Bytes that a job may take while it runs; generous.
struct KxJobRoom {
  int64_t beside = 0;  ///< on the volume of its source: its results, one of them twice
  int64_t pieces = 0;  ///< more on the volume of the work folders when it goes by pieces
};

/// Estimates the room that a job needs. A pure function of the record.
KxJobRoom kxJobRoom(const KxDBTaskParam& job);

/// Removes what jobs that went by pieces kept for their next run where the job is gone or ended:
/// no row waits or runs any more. Takes the job store's lock; call it without any.
void kxRemoveStrayCheckpoints();

/// Thread routine of a unit's runner.
/// @param arg the `KxTranscodeUnit2` that was started; NULL ends at once
void* unitBGTranscodeThread(void* arg);
