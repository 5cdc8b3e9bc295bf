#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "daemon/Mutex.h"
#include "daemon/Scheduler.h"
#include "daemon/UnitControl.h"
#include "daemon/WatchedJobs.h"

namespace xcoded {

// Something that may be done to jobs only when no unit works on them.
struct StopOperation {
  JobFilter matches;                 // the jobs that it concerns
  std::function<std::string()> act;  // runs with the job store locked; returns why it failed
  bool takesLocks = false;           // act locks by itself and runs without the lock
};

// The thread that starts waiting jobs and keeps house.
//
// It waits for notify() and for its next duty, never on a shorter clock. Operations that need
// jobs at rest are handed to it, because it alone starts jobs: while an operation is waiting
// for its units to end, no matching job starts. All public members may be called from any
// thread that holds no lock of the library.
class ScheduleLoop {
 public:
  // What the loop has to know about the server around it.
  struct Server {
    std::function<int()> status;       // KxSvrStatus_e
    std::function<bool()> isDiskFull;  // may take a system call
    // When a pause ends; nothing when there is none or it lasts until resumed.
    std::function<std::optional<std::chrono::steady_clock::time_point>()> pauseEnd;
    std::function<void()> endPause;
  };

  // @param maxUnits units at once, 0: chosen from the machine
  // @param settleTime that the source of a watched folder must be at rest
  ScheduleLoop(Server server, int maxUnits,
               std::chrono::seconds settleTime = std::chrono::seconds(3));
  ~ScheduleLoop();
  ScheduleLoop(const ScheduleLoop&) = delete;
  ScheduleLoop& operator=(const ScheduleLoop&) = delete;

  void start();
  // Ends the thread, stops all units, waits for them up to the limit, and carries out the
  // operations that are still open. False when a unit did not end in time.
  bool stop(std::chrono::milliseconds limit);

  // Something changed: the queue, the state of the server, or a unit ended.
  void notify();
  // A job was queued. Many of them in a row wake the thread twice a second.
  void notifySoon();
  // Stops the units of matching jobs and acts when they are gone. The future yields what act
  // returned.
  std::future<std::string> submit(StopOperation operation);
  // What keeps a waiting job from being started besides its turn; empty when nothing does.
  std::string obstacleOf(const KxDBTaskParam& job);

 private:
  struct OpenOperation {
    StopOperation operation;
    std::promise<std::string> result;
    bool isStopping = false;
  };
  using Clock = std::chrono::steady_clock;
  using Obstacles = std::map<int64_t, const char*>;  // what jobs wait for

  void run();
  bool waitForWork();
  void keepHouse();
  void trimWhenIdle();
  void endPauseInTime();
  void settleOperations();
  void startJobs();
  int slotsNow(const std::vector<KxDBTaskParam>& units);
  bool isHeld(const KxDBTaskParam& job);
  bool hasRoom(const KxDBTaskParam& job, RoomLedger& room);
  bool startJob(const KxDBTaskParam& job, RoomLedger& room);
  Obstacles fillSlots(int slots, const std::vector<KxDBTaskParam>& units);
  bool isDiskFull();
  bool waitForUnits(std::chrono::milliseconds limit);

  const Server m_server;
  const int m_configuredUnits;
  std::thread m_thread;

  Mutex m_mutex;
  Condition m_changed;
  bool m_isNotified KX_GUARDED_BY(m_mutex) = false;
  bool m_isSoon KX_GUARDED_BY(m_mutex) = false;
  bool m_isStopping KX_GUARDED_BY(m_mutex) = false;
  std::list<OpenOperation> m_submitted KX_GUARDED_BY(m_mutex);
  Obstacles m_obstacles KX_GUARDED_BY(m_mutex);      // of watched jobs
  bool m_isDiskFull KX_GUARDED_BY(m_mutex) = false;  // as last seen with a job waiting

  // Only the loop's thread uses what follows.
  std::list<OpenOperation> m_open;
  int m_maxUnits = 1;
  bool m_hasWorked = true;  // since memory was given back last; loading counts as work
  WatchedJobs m_watched;
  Clock::time_point m_lastRound;
  Clock::time_point m_nextHouseKeeping;
  Clock::time_point m_nextResourceCount;
  std::map<int64_t, Clock::time_point> m_startTimes;  // of units, by job
  std::set<int64_t> m_withoutRoom;                    // jobs that the log told about
};

}  // namespace xcoded
