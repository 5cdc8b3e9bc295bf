#include "resources/ResourceUse.h"

#include <unistd.h>

#include <ctime>

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

}  // namespace

std::vector<KxResource2> resourcesToTry(int level) {
  const std::vector<KxResource2> all = KxResMgr2::getInstance()->getResVec();
  if (all.empty()) {
    KX_RUNNER_LOG_LEVEL(level, "resource vector is empty\n");
    return {};
  }
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

Registration::Registration(JobRun& run, const KxResource2& resource, const KxRegInfo& info)
    : m_run(run) {
  if (m_reg.init(resource.resType, resource.id, REGJOB_UNIT, run.task(), info) != 0) {
    KX_RUNNER_LOG("reg init fail, resId(%s)\n", resource.id.c_str());
    return;
  }
  m_registered = enter();
}

// The unit shows the registration from the moment the manager has it.
bool Registration::enter() {
  const ManagerLock lock;
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

Attempt attemptOn(JobRun& run, KxResource2& resource, const KxRegInfo& info,
                  const std::function<Attempt(KxResource2&)>& attempt) {
  const Registration registration(run, resource, info);
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
  for (KxResource2& resource : resources) {
    const Attempt result = attemptOn(run, resource, info, attempt);
    if (result.ok) {
      if (!faults.empty()) run.remark(faults + "; done by " + resource.id);
      return "";
    }
    faults += (faults.empty() ? "" : "; ") + resource.id + ": " + result.fault;
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
