#include "KxAbstractTranscodeSvr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>

#include "KxResMgr2.h"
#include "Misc.h"
#include "frame/AnswerRecord.h"
#include "frame/DiskSpace.h"
#include "frame/Log.h"
#include "frame/StatusRows.h"

static constexpr const char* kLogSource = "KxAbstractTranscodeSvr";

namespace {

constexpr const char* kConfigFile = "/etc/config/medialibrary.conf";
constexpr const char* kConfigSection = "TRANSCODESVR";
constexpr const char* kExtraTranscodeKey = "ENABLE_EXTRA_TRANSOCDE";

// Holds the resource manager's lock for a scope; a failure is logged and leaves it unheld.
class ResMgrLock {
 public:
  struct Texts {
    const char* lockFailed;
    const char* unlockFailed;
  };
  static constexpr Texts kHandler = {"KxResMgr2 mutex lock fail\n",
                                     "KxResMgr2 mutex unlock fail\n"};
  static constexpr Texts kDump = {"mutex lock fail\n", "mutex unlock fail\n"};

  explicit ResMgrLock(const char* func, const Texts& texts = kHandler)
      : m_func(func), m_texts(texts), m_held(KxResMgr2::getInstance()->mutexLock() == 0) {
    if (!m_held) KX_LOG_AS(m_func, "%s", m_texts.lockFailed);
  }
  ~ResMgrLock() {
    if (m_held && KxResMgr2::getInstance()->mutexUnLock() != 0)
      KX_LOG_AS(m_func, "%s", m_texts.unlockFailed);
  }
  ResMgrLock(const ResMgrLock&) = delete;
  ResMgrLock& operator=(const ResMgrLock&) = delete;

  explicit operator bool() const { return m_held; }

 private:
  const char* m_func;
  const Texts& m_texts;
  bool m_held;
};

bool isHardware(const KxResource2& resource) {
  return resource.resType >= RES2_GPU_INTERNAL && resource.resType <= RES2_ARM_RK;
}

void logResource(const char* func, const KxResource2& resource) {
  KX_LOG_AS(func, "id:%s resType:%d vendor:%s devName:%s mode:%d devNum:%s", resource.id.c_str(),
            static_cast<int>(resource.resType), resource.vendorName.c_str(),
            resource.devName.c_str(), resource.modeSupport, resource.devNumber.c_str());
}

// First step of daemonising: go on in a child, so that the caller's shell gets its prompt back.
bool continueInChild(const char* func) {
  const pid_t pid = fork();
  if (pid > 0) _exit(0);
  if (pid < 0) KX_LOG_AS(func, "daemonsize fork fail\n");
  return pid == 0;
}

// Standard output and standard error stay as they are: whoever started the daemon decides.
void detachStandardInput() {
  const int fd = open("/dev/null", O_RDONLY);
  if (fd < 0) return;
  dup2(fd, STDIN_FILENO);
  if (fd != STDIN_FILENO) close(fd);
}

}  // namespace

KxAbsTranscodeSvr::KxAbsTranscodeSvr()
    : m_mutex{}, m_reserved(0), m_svrStatus(SVR_NONE), m_pauseSec(0), m_isDaemon(0),
      m_enableExtraTranscode(0) {
  if (miscMutexInit(m_mutex, nullptr) != 0) KX_LOG("KxAbsTranscodeSvr init mutex fail\n");
}

KxAbsTranscodeSvr::~KxAbsTranscodeSvr() {
  if (miscMutexDestroy(m_mutex) != 0) KX_LOG("KxAbsTranscodeSvr destroy mutex fail\n");
}

int KxAbsTranscodeSvr::createDaemon() {
  if (!continueInChild(__func__)) return 1;
  if (setsid() < 0) {
    KX_LOG("setsid() fail creating new session \n");
    return 1;
  }
  if (!continueInChild(__func__)) return 1;
  umask(0);
  if (chdir("/") != 0) {
    KX_LOG("chdir \"/\" fail\n");
    return 1;
  }
  detachStandardInput();
  return 0;
}

int KxAbsTranscodeSvr::sockInit(std::string path) {
  return m_socket.init(path, true);
}

int KxAbsTranscodeSvr::sockListen(int backlog) {
  return m_socket.Listen(backlog);
}

int KxAbsTranscodeSvr::sockAccept() {
  return m_socket.Accept();
}

int KxAbsTranscodeSvr::sockReadStruct(void* buf, unsigned int len, int fd) {
  return m_socket.ReadStruct(buf, len, fd);
}

int KxAbsTranscodeSvr::sockClose() {
  return m_socket.Close();
}

int KxAbsTranscodeSvr::sockClose(int fd) {
  return m_socket.Close(fd);
}

std::string KxAbsTranscodeSvr::getxCodeSvrXmlPath() const {
  return m_xCodeSvrXmlPath;
}

std::string KxAbsTranscodeSvr::getMediaDB2XmlPath() const {
  return m_mediaDB2XmlPath;
}

std::string KxAbsTranscodeSvr::getWorkingPath() const {
  return m_workingPath;
}

std::string KxAbsTranscodeSvr::getDBPath() const {
  return m_dbPath;
}

int KxAbsTranscodeSvr::getSvrStatus() const {
  return m_svrStatus;
}

void KxAbsTranscodeSvr::setSvrStatus(int status) {
  m_svrStatus = status;
}

int KxAbsTranscodeSvr::getPauseSec() const {
  return m_pauseSec;
}

void KxAbsTranscodeSvr::setPauseSec(int seconds) {
  m_pauseSec = seconds;
}

int KxAbsTranscodeSvr::getIsDaemon() const {
  return m_isDaemon;
}

int KxAbsTranscodeSvr::isEnableExtraTranscode() const {
  return m_enableExtraTranscode;
}

int KxAbsTranscodeSvr::setExtraTranscode(int value) {
  if (checkExtraTranscode(value) != 0) return 1;
  const std::string file = miscSystemPath(kConfigFile);
  if (MyUtil_SetKeyInt(kConfigSection, kExtraTranscodeKey, value, file.c_str()) == 0) {
    KX_LOG("set %s=%d to %s fail\n", kExtraTranscodeKey, value, file.c_str());
    return 1;
  }
  m_enableExtraTranscode = value;
  return 0;
}

bool KxAbsTranscodeSvr::isSupportExtraTransocde() {
  const std::vector<KxResource2> resources = KxResMgr2::getInstance()->getResVec();
  if (resources.empty()) {
    KX_LOG("resource vector is empty\n");
    return false;
  }
  for (const KxResource2& resource : resources) logResource(__func__, resource);
  const bool hasSoftware =
      std::any_of(resources.begin(), resources.end(),
                  [](const KxResource2& resource) { return resource.resType == RES2_SW_CPU; });
  return hasSoftware && std::any_of(resources.begin(), resources.end(), isHardware);
}

int KxAbsTranscodeSvr::checkExtraTranscode(int value) {
  if (value == 0 || isSupportExtraTransocde() || value != 1) return 0;
  KX_LOG("Not Suppor Extra Transcode");
  return value;
}

int KxAbsTranscodeSvr::isDiskFull() {
  struct statvfs info {};
  if (statvfs(m_dbPath.c_str(), &info) != 0) {
    KX_LOG("statvfs() main volume error, errno=%d, errStr=%s\n", errno, strerror(errno));
    return 1;
  }
  const int64_t freeSpace = diskspace::freeBytes(info.f_bsize, info.f_bfree);
  if (diskspace::isEnough(freeSpace)) return 0;
  KX_LOG("freeSpace=%ld < %ld, lack of space\n", static_cast<long>(freeSpace),
         static_cast<long>(diskspace::kReserve));
  return 1;
}

int KxAbsTranscodeSvr::sendAnswer(AnswerRecord& answer, int fd, const char* func) {
  return sendBytes(&answer.record(), sizeof(KxSockData_s), fd, func);
}

int KxAbsTranscodeSvr::sendBytes(void* bytes, size_t count, int fd, const char* func) {
  if (m_socket.Write(bytes, static_cast<unsigned int>(count), fd) == static_cast<int>(count))
    return 0;
  KX_LOG_AS(func, "sockMgr Write() error\n");
  return 1;
}

int KxAbsTranscodeSvr::svrStart(int fd, KxSockData_s& req) {
  KX_LOG("server start, we start all current transcode unit\n");
  int result = 0;
  if (const ResMgrLock lock(__func__); lock) {
    setSvrStatus(SVR_RUNNING);
    result = KxResMgr2::getInstance()->startAllUnit();
  }
  AnswerRecord answer(req);
  return sendAnswer(answer.result(result), fd, __func__) != 0 ? 1 : result;
}

int KxAbsTranscodeSvr::svrStop(int fd, KxSockData_s& req) {
  KX_LOG("server stop, we stop all current transcode unit\n");
  int result = 0;
  if (const ResMgrLock lock(__func__); lock) {
    setSvrStatus(SVR_STOPPED);
    result = KxResMgr2::getInstance()->stopAllUnit();
  }
  AnswerRecord answer(req);
  return sendAnswer(answer.result(result), fd, __func__) != 0 ? 1 : result;
}

// Works under the resource manager's lock, on behalf of svrPause().
int KxAbsTranscodeSvr::resumeUnitsLocked() {
  setSvrStatus(SVR_RUNNING);
  setPauseSec(0);
  const int result = KxResMgr2::getInstance()->startAllUnit();
  if (result != 0) KX_LOG_AS("svrPause", "start all transcode unit fail\n");
  return result;
}

int KxAbsTranscodeSvr::pauseUnitsLocked(int seconds) {
  setSvrStatus(SVR_PAUSED);
  if (seconds > 0) {
    KX_LOG_AS("svrPause",
              "current pause behavor -> pause background thread for %d sec, for now pause also "
              "stop all transcode units\n",
              seconds);
  } else {
    KX_LOG_AS("svrPause", "pause -1 => pause forever\n");
  }
  setPauseSec(seconds > 0 ? seconds : -1);
  const int result = KxResMgr2::getInstance()->pauseAllUnit();
  if (result != 0) KX_LOG_AS("svrPause", "pause all transcode unit fail\n");
  return result;
}

int KxAbsTranscodeSvr::svrPause(int fd, KxSockData_s& req) {
  const int seconds = recordInt(req, 1);
  int result = 0;
  if (const ResMgrLock lock(__func__); lock)
    result = seconds == 0 ? resumeUnitsLocked() : pauseUnitsLocked(seconds);
  AnswerRecord answer(req);
  return sendAnswer(answer.result(result), fd, __func__);
}

int KxAbsTranscodeSvr::getSvrStatus(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  answer.set(1, getSvrStatus()).set(2, getPauseSec()).set(3, isDiskFull());
  return sendAnswer(answer, fd, __func__);
}

// The cgroup handlers report success to the host whether or not the client took the answer.

int KxAbsTranscodeSvr::getCGroupCPULimit(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  answer.result(0).set(2, KxResMgr2::getInstance()->cGroupGetCpuLimit());
  sendAnswer(answer, fd, __func__);
  return 0;
}

int KxAbsTranscodeSvr::setCGroupCPULimit(int fd, KxSockData_s& req) {
  const int limit = recordInt(req, 1);
  AnswerRecord answer(req);
  answer.result(KxResMgr2::getInstance()->cGroupSetCpuLimit(limit)).set(2, limit);
  sendAnswer(answer, fd, __func__);
  return 0;
}

int KxAbsTranscodeSvr::getCGroupMemLimit(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  answer.result(0).set(2, KxResMgr2::getInstance()->cGroupGetMemLimit());
  sendAnswer(answer, fd, __func__);
  return 0;
}

int KxAbsTranscodeSvr::setCGroupMemLimit(int fd, KxSockData_s& req) {
  const int limit = recordInt(req, 1);
  AnswerRecord answer(req);
  answer.result(KxResMgr2::getInstance()->cGroupSetMemLimit(limit)).set(2, limit);
  sendAnswer(answer, fd, __func__);
  return 0;
}

// The dumps go on without the lock: they are wanted most when something holds it.

int KxAbsTranscodeSvr::dumpRes(int, KxSockData_s&) {
  const ResMgrLock lock(__func__, ResMgrLock::kDump);
  KxResMgr2::getInstance()->dumpRes();
  return 0;
}

int KxAbsTranscodeSvr::dumpUnit(int, KxSockData_s&) {
  const ResMgrLock lock(__func__, ResMgrLock::kDump);
  KxResMgr2::getInstance()->dumpUnit();
  return 0;
}

int KxAbsTranscodeSvr::sendRows(const std::vector<std::string>& rows, int fd,
                                const KxSockData_s& req, const char* func) {
  const statusrows::Page page = statusrows::page(rows, recordInt(req, 1));
  AnswerRecord answer(req);
  answer.result(0).set(2, page.total).set(3, page.count).text(page.text);
  return sendAnswer(answer, fd, func);
}

int KxAbsTranscodeSvr::getResource(int fd, KxSockData_s& req) {
  return sendRows(statusrows::ofResources(KxResMgr2::getInstance()->getResVec()), fd, req,
                  __func__);
}

int KxAbsTranscodeSvr::getTranscodeProcessInfo(int fd, KxSockData_s& req) {
  return sendRows(statusrows::ofRegistrations(KxResMgr2::getInstance()->getResVec()), fd, req,
                  __func__);
}

int KxAbsTranscodeSvr::getStatus(int fd, KxSockData_s& req) {
  std::vector<KxTranscodeUnit2> units;
  {
    const ResMgrLock lock(__func__);
    if (!lock) {
      AnswerRecord answer(req);
      return sendAnswer(answer.result(1), fd, __func__);
    }
    units = KxResMgr2::getInstance()->getUnitVec();
  }
  return sendRows(statusrows::ofUnits(units), fd, req, __func__);
}

int KxAbsTranscodeSvr::getExtraTranscodeInfo(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  answer.result(0).set(2, isEnableExtraTranscode()).set(3, isSupportExtraTransocde() ? 1 : 0);
  return sendAnswer(answer, fd, __func__);
}

int KxAbsTranscodeSvr::setExtraTranscodeInfo(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  return sendAnswer(answer.result(setExtraTranscode(recordInt(req, 1))), fd, __func__);
}
