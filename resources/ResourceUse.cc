#include "resources/ResourceUse.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "resources/JobRecord.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

// Holds the manager's lock. A failure is logged and the work goes on.
class ManagerLock {
 public:
  ManagerLock() {
    if (KxResMgr2::getInstance()->mutexLock() != 0) KX_RUNNER_LOG("KxResMgr mutex lock fail\n");
  }
  ~ManagerLock() {
    if (KxResMgr2::getInstance()->mutexUnLock() != 0) KX_RUNNER_LOG("KxResMgr mutex unlock fail\n");
  }
  ManagerLock(const ManagerLock&) = delete;
  ManagerLock& operator=(const ManagerLock&) = delete;
};

// The best of some resources by the registrations that they have now; one that is gone stays
// as it was, and will not take the registration. The manager's lock is held.
KxResource2 bestNow(std::vector<KxResource2> candidates) {
  const std::vector<KxResource2> known = KxResMgr2::getInstance()->getKnownResVec();
  for (KxResource2& candidate : candidates) {
    const auto now = std::ranges::find(known, candidate.id, &KxResource2::id);
    if (now != known.end()) candidate = *now;
  }
  return getPriorityResVec(std::move(candidates)).front();
}

}  // namespace

std::vector<KxResource2> resourcesToTry(int level) {
  const std::vector<KxResource2> all = KxResMgr2::getInstance()->getResVec();
  if (all.empty()) KX_RUNNER_LOG_LEVEL(level, "resource vector is empty\n");
  std::vector<KxResource2> ordered = getPriorityResVec(all);
  if (ordered.empty()) KX_RUNNER_LOG_LEVEL(level, "priority resource vector is empty\n");
  return ordered;
}

KxRegInfo registrationInfo(const JobRun& run, int width, int height) {
  KxRegInfo info;
  info.m_srcPath = run.job().src;
  info.m_srcWidth = width;
  info.m_srcHeight = height;
  info.m_pid = getpid();
  info.m_startTime = time(nullptr);
  info.m_configMask = static_cast<int64_t>(run.job().jobFlag);
  return info;
}

Registration::Registration(JobRun& run, const std::vector<KxResource2>& candidates,
                           const KxRegInfo& info)
    : m_run(run) {
  const ManagerLock lock;
  m_resource = bestNow(candidates);
  m_registered = enter(info);
}

// The unit shows the registration from the moment the manager has it.
bool Registration::enter(const KxRegInfo& info) {
  if (m_reg.init(m_resource.resType, m_resource.id, REGJOB_UNIT, m_run.task(), info) != 0) {
    KX_RUNNER_LOG("reg init fail, resId(%s)\n", m_resource.id.c_str());
    return false;
  }
  if (KxResMgr2::getInstance()->regRes(m_reg) != 0) {
    KX_RUNNER_LOG("KxResMgr register resource fail\n");
    return false;
  }
  KX_RUNNER_LOG("set reg to transcodeunit\n");
  m_run.showRegistration(m_reg);
  return true;
}

Registration::~Registration() {
  if (!m_registered) return;
  const ManagerLock lock;
  if (KxResMgr2::getInstance()->unRegRes(m_reg) != 0)
    KX_RUNNER_LOG("KxResMgr unRegister resource fail\n");
  m_run.showRegistration(KxRegister());
}

Attempt attemptOnBest(JobRun& run, std::vector<KxResource2>& candidates, const KxRegInfo& info,
                      const std::function<Attempt(KxResource2&)>& attempt, std::string& resId) {
  Registration registration(run, candidates, info);
  KxResource2& resource = registration.resource();
  resId = resource.id;
  std::erase_if(candidates, [&](const KxResource2& one) { return one.id == resId; });
  if (!registration.valid()) return {false, "cannot be used"};
  Attempt result = attempt(resource);
  if (result.ok) {
    KX_RUNNER_LOG("resId(%s) transcode success\n", resource.id.c_str());
  } else {
    KX_RUNNER_LOG("unit transcode error on resId(%s)\n", resource.id.c_str());
  }
  return result;
}

std::string tryResources(JobRun& run, const KxRegInfo& info,
                         const std::function<Attempt(KxResource2&)>& attempt) {
  std::vector<KxResource2> resources = resourcesToTry(2);
  if (resources.empty()) return "there is no transcoding resource";
  std::string faults;
  while (!resources.empty()) {
    std::string resId;
    const Attempt result = attemptOnBest(run, resources, info, attempt, resId);
    if (result.ok) {
      if (!faults.empty()) run.remark(faults.append("; done by ").append(resId));
      return "";
    }
    if (!faults.empty()) faults += "; ";
    faults.append(resId).append(": ").append(result.fault);
    if (run.mustEnd()) {
      KX_RUNNER_LOG("someone stop this unit transcode\n");
      KX_RUNNER_LOG("someone stop this transcode unit\n");
      return faults;
    }
    KX_RUNNER_LOG("keep trying the next resource transcode\n");
    keepReason(run, faults);
  }
  KX_RUNNER_LOG_LEVEL(2, "all resource transcode fail\n");
  return faults;
}

}  // namespace runner
