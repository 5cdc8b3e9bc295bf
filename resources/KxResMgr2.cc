#include "KxResMgr2.h"

#include <sys/stat.h>

#include <new>
#include <utility>

#include "Misc.h"
#include "frame/Log.h"
#include "resources/CardDiscovery.h"
#include "resources/ResourceList.h"

static constexpr const char* kLogSource = "KxResMgr2";

namespace {

constexpr const char* kSection = "TRANSCODESVR";
constexpr const char* kCpuKey = "CPU_LIMIT";
constexpr const char* kMemKey = "MEM_LIMIT";
constexpr int kDefaultCpuLimit = 50;  // percent
constexpr int kAutomaticMemLimit = -1;

constexpr int kPlatformArmRtk = 15;
constexpr int kPlatformArmRk = 16;

std::string configFile() {
  return miscSystemPath("/etc/config/medialibrary.conf");
}

// A limit that cannot be stored is applied all the same.
void storeLimit(const char* function, const char* key, int value) {
  const std::string file = configFile();
  if (MyUtil_SetKeyInt(kSection, key, value, file.c_str()) == 0)
    KX_LOG_AS(function, "set %s=%d to %s fail\n", key, value, file.c_str());
}

int logged(int result, const char* function, const char* complaint) {
  if (result != 0) KX_LOG_AS(function, "%s", complaint);
  return result;
}

// The folder part with its trailing "/".
std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "/" : path.substr(0, slash + 1);
}

}  // namespace

KxResMgr2* KxResMgr2::getInstance() {
  static KxResMgr2 instance;
  return &instance;
}

KxResMgr2::KxResMgr2()
    : m_resources(std::make_unique<ResourceList>()), m_discovery(std::make_unique<CardDiscovery>()),
      m_appliedLook(0) {
  if (miscMutexInit(m_mutex, nullptr) != 0) KX_LOG("KxResMgr init mutex fail\n");
}

KxResMgr2::~KxResMgr2() {
  // A runner that has not left still uses its unit: leaking it is the lesser evil.
  for (auto& unit : m_units)
    if (unit->getLiveRunners() > 0) static_cast<void>(unit.release());
  if (miscMutexDestroy(m_mutex) != 0) KX_LOG("KxResMgr destroy mutex fail\n");
}

int KxResMgr2::init(std::string cgroupName) {
  if (cgroupName.empty()) {
    KX_LOG("invaild cGroup name;");
    return 1;
  }
  m_cgroupName = std::move(cgroupName);
  if (initBuiltInResources() != 0) return 1;
  if (checkRes() != 0) {
    KX_LOG("check resource fail\n");
    return 1;
  }
  return initLimits();
}

int KxResMgr2::initBuiltInResources() {
  struct BuiltIn {
    int platformType;  // 0: every platform
    const char* id;
    KxRes2_e type;
    const char* complaint;
  };
  static constexpr BuiltIn kBuiltIns[] = {
      {0, "sw_cpu", RES2_SW_CPU, "craete sw_cpu resource fail\n"},
      {kPlatformArmRtk, "arm.rtk", RES2_ARM_RTK, "create arm.rtk resource fail\n"},
      {kPlatformArmRk, "arm.rk", RES2_ARM_RK, "create arm.rk resource fail\n"},
  };
  for (const BuiltIn& builtIn : kBuiltIns) {
    if (builtIn.platformType != 0 && builtIn.platformType != m_platform.getPlatformType()) continue;
    if (!m_resources->addBuiltIn(builtIn.id, builtIn.type))
      return logged(1, "init", builtIn.complaint);
  }
  return 0;
}

int KxResMgr2::initLimits() {
  const std::string file = configFile();
  const int cpuLimit = MyUtil_GetKeyInt(kSection, kCpuKey, kDefaultCpuLimit, file.c_str());
  const int memLimit = MyUtil_GetKeyInt(kSection, kMemKey, kAutomaticMemLimit, file.c_str());
  KX_LOG_AS("init", "cpuLimit=%d\n", cpuLimit);
  KX_LOG_AS("init", "memLimit=%d\n", memLimit);
  if (logged(m_cgroup.ampCpuInit(m_cgroupName, cpuLimit), "init", "Cgroup cpu init fail\n") != 0)
    return 1;
  if (logged(m_cgroup.ampMemInit(m_cgroupName, memLimit), "init", "Cgroup memory init fail\n") != 0)
    return 1;
  return 0;
}

int KxResMgr2::checkRes() {
  return applyLook(*m_discovery->look());
}

// A look that was overtaken by a later one is old news.
int KxResMgr2::applyLook(const CardLook& look) {
  if (!look.cards) return 1;
  if (look.number > m_appliedLook) {
    m_appliedLook = look.number;
    m_resources->reconcile(*look.cards);
  }
  return 0;
}

std::vector<KxResource2> KxResMgr2::getResVec() {
  // Looked up before the mutex is taken: the tool starts programs and may be slow, and every
  // request for a status would have to wait for it.
  const auto look = m_discovery->look();
  if (miscMutexLock(m_mutex) != 0) {
    KX_LOG("KxResMgr mutex lock fail");
    return {};
  }
  std::vector<KxResource2> copy;
  if (applyLook(*look) == 0) {
    copy = m_resources->entries();
  } else {
    KX_LOG("check resource fail");
  }
  if (miscMutexUnLock(m_mutex) != 0) KX_LOG("KxResMgr mutex unlock fail");
  return copy;
}

std::vector<KxResource2> KxResMgr2::getKnownResVec() const {
  return m_resources->entries();
}

int KxResMgr2::regRes(KxRegister& reg) {
  if (reg.isEmpty) {
    KX_LOG("reg is empty\n");
    return 1;
  }
  KxResource2* resource = m_resources->find(reg.m_resId);
  if (resource == nullptr) return 1;
  if (resource->addRegInfo(reg) != 0) {
    KX_LOG("add reg info to resId(%s) fail\n", reg.m_resId.c_str());
    return 1;
  }
  return 0;
}

int KxResMgr2::unRegRes(KxRegister& reg) {
  if (reg.isEmpty) {
    KX_LOG("reg is empty\n");
    return 1;
  }
  KxResource2* resource = m_resources->find(reg.m_resId);
  return resource == nullptr ? 1 : resource->rmRegInfo(reg);
}

int KxResMgr2::checkRegInfo() {
  m_resources->removeDeadProcesses();
  return 0;
}

void KxResMgr2::dumpRes() {
  KX_LOG("========dump resource vector=========\n");
  m_resources->dump();
  KX_LOG("=================\n");
}

void KxResMgr2::dumpUnit() {
  KX_LOG("==========dump unit vector=======\n");
  for (const auto& unit : m_units) unit->dump();
  KX_LOG("=================\n");
}

void KxResMgr2::dump() {
  dumpRes();
  dumpUnit();
}

int KxResMgr2::mutexLock() {
  return logged(miscMutexLock(m_mutex), __func__, "ResMgr lock mutex fail\n");
}

int KxResMgr2::mutexUnLock() {
  return logged(miscMutexUnLock(m_mutex), __func__, "ResMgr unlock mutex fail\n");
}

int KxResMgr2::mutexTryLock() {
  return logged(miscMutexTryLock(m_mutex), __func__, "ResMgr trylock mutex fail\n");
}

void KxResMgr2::cGroupAddPid(int pid) {
  m_cgroup.addProcessInCgroup(pid);
}

void KxResMgr2::cGroupAddSelfThread() {
  m_cgroup.addThreadSelfInCgroup();
}

int KxResMgr2::cGroupGetCpuLimit() {
  return m_cgroup.getCpuLimiting();
}

int KxResMgr2::cGroupGetMemLimit() {
  return m_cgroup.getMemLimiting();
}

int KxResMgr2::cGroupSetCpuLimit(int percent) {
  storeLimit(__func__, kCpuKey, percent);
  return m_cgroup.setCpuLimiting(percent);
}

int KxResMgr2::cGroupSetMemLimit(int limitKb) {
  storeLimit(__func__, kMemKey, limitKb);
  // The group itself takes -1 for "no limit"; only its set-up knows the automatic ceiling.
  if (limitKb == kAutomaticMemLimit) return m_cgroup.ampMemInit(m_cgroupName, limitKb);
  return m_cgroup.setMemLimiting(limitKb);
}

int KxResMgr2::createUnit(KxDBTask& task) {
  if (task.isEmpty) {
    KX_LOG("invalid dbTask, unit create fail\n");
    return 1;
  }
  std::unique_ptr<KxTranscodeUnit2> unit(new (std::nothrow) KxTranscodeUnit2);
  if (!unit) {
    KX_LOG("new transcode unit fail\n");
    return 1;
  }
  if (unit->init(task) != 0) {
    KX_LOG("transcode unit init fail\n");
    return 1;
  }
  m_units.push_back(std::move(unit));
  return 0;
}

void KxResMgr2::forUnits(UnitOperation operation,
                         const std::function<bool(const KxDBTask&)>& isMeant) {
  for (const auto& unit : m_units)
    if (isMeant(unit->getTask())) ((*unit).*operation)();
}

int KxResMgr2::unitStart(KxDBTask& task) {
  if (task.isEmpty) {
    KX_LOG("dbTask is empty\n");
    return 1;
  }
  forUnits(&KxTranscodeUnit2::start, [&](const KxDBTask& job) { return job == task; });
  return 0;
}

int KxResMgr2::unitStop(long long jobId) {
  if (jobId < 0) {
    KX_LOG("invalid job id\n");
    return 1;
  }
  forUnits(&KxTranscodeUnit2::stop, [&](const KxDBTask& job) { return job.param.id == jobId; });
  return 0;
}

int KxResMgr2::unitStop(KxDBTask& task) {
  if (task.isEmpty) {
    KX_LOG("req is empty\n");
    return 1;
  }
  forUnits(&KxTranscodeUnit2::stop,
           [&](const KxDBTask& job) { return job.param.id == task.param.id; });
  return 0;
}

int KxResMgr2::unitStop(std::string srcPath) {
  if (srcPath.empty()) {
    KX_LOG("empty srcPath\n");
    return 1;
  }
  struct stat info {};
  const bool isKnown = stat(srcPath.c_str(), &info) == 0;
  if (!isKnown) KX_LOG("can not stat %s\n", srcPath.c_str());
  const bool isFolder = isKnown && S_ISDIR(info.st_mode);
  // A plain prefix, without a look at the separator: sibling folders whose names begin with
  // the same characters are meant too.
  forUnits(&KxTranscodeUnit2::stop, [&](const KxDBTask& job) {
    return isFolder ? folderOf(job.param.src).starts_with(srcPath) : job.param.src == srcPath;
  });
  return 0;
}

int KxResMgr2::unitPending(KxDBTask& task) {
  if (task.isEmpty) {
    KX_LOG("req is empty\n");
    return 1;
  }
  forUnits(&KxTranscodeUnit2::pending, [&](const KxDBTask& job) { return job == task; });
  return 0;
}

int KxResMgr2::forAllUnits(UnitOperation operation, const char* function, const char* complaint) {
  for (const auto& unit : m_units)
    if (logged(((*unit).*operation)(), function, complaint) != 0) unit->dump();
  return 0;
}

int KxResMgr2::startAllUnit() {
  return forAllUnits(&KxTranscodeUnit2::start, __func__, "start transcode unit fail\n");
}

int KxResMgr2::stopAllUnit() {
  return forAllUnits(&KxTranscodeUnit2::stop, __func__, "stop transcode unit fail\n");
}

int KxResMgr2::pauseAllUnit() {
  return forAllUnits(&KxTranscodeUnit2::pending, __func__, "pause transcode unit fail\n");
}

int KxResMgr2::checkUnit() {
  for (auto unit = m_units.begin(); unit != m_units.end();) {
    if (!(*unit)->isReapable()) {
      ++unit;
      continue;
    }
    // The runner may have failed to unregister; nobody will after this.
    KxDBTask job = (*unit)->getTask();
    if (!job.isEmpty) m_resources->removeJob(job);
    KX_LOG("delete transcode unit\n");
    (*unit)->dump();
    unit = m_units.erase(unit);
  }
  return 0;
}

std::vector<KxTranscodeUnit2> KxResMgr2::getUnitVec() {
  std::vector<KxTranscodeUnit2> copies;
  copies.reserve(m_units.size());
  for (const auto& unit : m_units) copies.emplace_back(*unit);
  return copies;
}
