#pragma once
/// @file
/// The keeper of transcoding resources and units.

#include <pthread.h>

#include <string>
#include <vector>

#include "AmpCgroup.h"
#include "KxResource2.h"
#include "KxTranscodeUnit2.h"
#include "VelmarPlatform.h"

/// Process-wide resource manager.
///
/// One mutex guards the resource list and the unit list. getResVec() takes it itself; all
/// other operations on the lists expect the caller to hold it. Lock order: manager, unit,
/// job store. Results are 0 on success and 1 on failure unless said otherwise.
class KxResMgr2 {
 public:
  static KxResMgr2* getInstance();
  ~KxResMgr2();
  KxResMgr2(const KxResMgr2&) = delete;
  KxResMgr2& operator=(const KxResMgr2&) = delete;

  int init(std::string cgroupName);
  int checkRes();
  std::vector<KxResource2> getResVec();
  int regRes(KxRegister& reg);
  int unRegRes(KxRegister& reg);
  int checkRegInfo();
  void dumpRes();
  void dumpUnit();
  void dump();
  int mutexLock();
  int mutexUnLock();
  int mutexTryLock();

  void cGroupAddPid(int pid);
  void cGroupAddSelfThread();
  int cGroupGetCpuLimit();
  int cGroupGetMemLimit();
  int cGroupSetCpuLimit(int percent);
  int cGroupSetMemLimit(int limitKb);

  int createUnit(KxDBTask& task);
  int unitStart(KxDBTask& task);
  int unitStop(long long jobId);
  int unitStop(KxDBTask& task);
  int unitStop(std::string srcPath);
  int unitPending(KxDBTask& task);
  int startAllUnit();
  int stopAllUnit();
  int pauseAllUnit();
  int checkUnit();
  std::vector<KxTranscodeUnit2> getUnitVec();

 private:
  KxResMgr2();

  std::string m_cgroupName;
  pthread_mutex_t m_mutex;
  KxPlatform m_platform;
  AmpCgroup m_cgroup;
  std::vector<KxResource2> m_resVec;
  std::vector<KxTranscodeUnit2*> m_unitVec;
};

/// @return a copy sorted by priority: hardware before software, then fewest registrations.
std::vector<KxResource2> getPriorityResVec(std::vector<KxResource2> resources);
