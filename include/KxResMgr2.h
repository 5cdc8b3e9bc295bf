#pragma once
/// @file
/// The keeper of transcoding resources and units.

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AmpCgroup.h"
#include "KxResource2.h"
#include "KxTranscodeUnit2.h"
#include "VelmarPlatform.h"

class CardDiscovery;
struct CardLook;
class ResourceList;

/// Process-wide resource manager: the resources, who uses them, the units and the limits of
/// all transcoding work.
///
/// One mutex guards the resource list and the unit list. getResVec() takes it itself; the
/// cgroup wrappers do not need it; all other operations expect the caller to hold it. Lock
/// order: manager, unit, job store. Results are 0 on success and 1 on failure unless said
/// otherwise; failures are logged and nothing throws.
class KxResMgr2 {
 public:
  /// The one instance, made by the first call. The system root has to be set before.
  static KxResMgr2* getInstance();
  /// No unit may be running any more; one that is stays behind.
  ~KxResMgr2();
  KxResMgr2(const KxResMgr2&) = delete;
  KxResMgr2& operator=(const KxResMgr2&) = delete;

  /// Builds the resource list and sets up the limits, once, before other threads use the
  /// manager; a second call adds the built-in resources again.
  /// @param cgroupName name of the control group, not empty
  /// @return 1 also when only the control group could not be set up: the resources exist then
  /// and work is not confined
  int init(std::string cgroupName);
  /// Looks for GPU cards and brings the list up to date. Fails, with the list untouched, when
  /// the accelerator tool is missing or gives no list; a single card that does not answer is
  /// left out. Takes up to a minute when the tool hangs.
  int checkRes();
  /// Looks for GPU cards and returns a copy of the list, empty on failure. Takes the mutex,
  /// so the caller must not hold it; it is not held while the accelerator tool runs. Callers
  /// at the same time share one look.
  std::vector<KxResource2> getResVec();
  /// Adds a registration to the resource that it names.
  /// @return 1 for an empty registration or an unknown resource
  int regRes(KxRegister& reg);
  /// The resources with their registrations as they are known at this moment; the accelerator
  /// tool is not asked. The caller holds the mutex, so what it chooses from them and registers
  /// before it lets go cannot be overtaken by another choice.
  std::vector<KxResource2> getKnownResVec() const;
  /// Removes a registration, see KxResource2::rmRegInfo().
  /// @return 1 for an empty registration or an unknown resource
  int unRegRes(KxRegister& reg);
  /// Drops the registrations of outside processes that have gone. @return 0
  int checkRegInfo();
  /// Write resources, units or both to the log.
  void dumpRes();
  void dumpUnit();
  void dump();
  /// @return the value of the underlying call, 0 on success
  int mutexLock();
  int mutexUnLock();
  /// @return the thread's errno whatever happened, so it does not tell whether the lock was
  /// taken
  int mutexTryLock();

  /// Puts a process under the limits.
  void cGroupAddPid(int pid);
  /// Puts the calling thread under the limits.
  void cGroupAddSelfThread();
  /// True when children must be confined one by one with cGroupAddPid(); else they inherit
  /// the group of the thread that starts them.
  bool cGroupIsUnified() const { return m_cgroup.isUnified(); }
  /// @return percent of all processors, -1 when the controller is not ready
  int cGroupGetCpuLimit();
  /// @return kilobytes
  int cGroupGetMemLimit();
  /// Stores the limit in the configuration, then applies it. @return 0, or -1 on failure
  /// @param percent of all processors; 100 and above for no limit, below 1 counts as 1
  int cGroupSetCpuLimit(int percent);
  /// Stores the limit in the configuration, then applies it. @return 0, or -1 on failure
  /// @param limitKb kilobytes; -1 for the automatic ceiling
  int cGroupSetMemLimit(int limitKb);

  /// Makes a unit for a job without starting it. Twice for one job makes two units.
  /// @return 1 for an empty job
  int createUnit(KxDBTask& task);
  /// Starts the units of a job. @return 1 for an empty job, 0 whatever the units answered
  int unitStart(KxDBTask& task);
  /// Stop the units of a job. @return 1 for an empty job or a negative id, else 0
  int unitStop(long long jobId);
  int unitStop(KxDBTask& task);
  /// Stops the units that work on a file, or on anything whose folder begins with the
  /// characters of a folder's path. @return 1 for an empty path, else 0
  int unitStop(std::string srcPath);
  /// Suspends the units of a job. @return 1 for an empty job, else 0
  int unitPending(KxDBTask& task);
  /// Ask every unit, in list order. @return 0 whatever the units answered
  int startAllUnit();
  int stopAllUnit();
  int pauseAllUnit();
  /// Frees the finished units that no runner works on any more, and takes their registrations
  /// off all resources. To be called regularly. @return 0
  int checkUnit();
  /// @return copies for status queries; they own no thread
  std::vector<KxTranscodeUnit2> getUnitVec();

 private:
  using UnitOperation = int (KxTranscodeUnit2::*)();

  KxResMgr2();
  int initBuiltInResources();
  int initLimits();
  void forUnits(UnitOperation operation, const std::function<bool(const KxDBTask&)>& isMeant);
  int applyLook(const CardLook& look);
  int forAllUnits(UnitOperation operation, const char* function, const char* complaint);

  std::string m_cgroupName;
  pthread_mutex_t m_mutex;
  KxPlatform m_platform;
  AmpCgroup m_cgroup;
  std::unique_ptr<ResourceList> m_resources;
  std::vector<std::unique_ptr<KxTranscodeUnit2>> m_units;
  std::unique_ptr<CardDiscovery> m_discovery;
  uint64_t m_appliedLook;  ///< number of the newest look whose cards are in the list
};

/// @return a copy sorted by priority: hardware before software, then fewest registrations.
/// Equal resources come in any order.
std::vector<KxResource2> getPriorityResVec(std::vector<KxResource2> resources);
