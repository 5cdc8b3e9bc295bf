#include "daemon/TranscodeServer.h"

#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "KxResMgr2.h"
#include "KxTransDBMgr.h"
#include "KxTransFileMonitor.h"
#include "daemon/Recovery.h"
#include "daemon/RequestJson.h"
#include "daemon/StopSignal.h"
#include "frame/Log.h"
#include "frame/UniqueFd.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";
constexpr int kBacklog = 128;
constexpr std::chrono::seconds kUnitsEnd{20};    // for all units to stop
constexpr std::chrono::seconds kWatchEnd{10};    // for scans and watches
constexpr std::chrono::seconds kClientsEnd{10};  // for the last answers

std::optional<gid_t> allowedGroup(const std::string& name) {
  const std::optional<gid_t> group = groupNumber(name);
  if (!name.empty() && !group)
    KX_LOG_LEVEL(3, "ALLOW_GROUP=%s: there is no such group\n", name.c_str());
  return group;
}

bool isWatched(const std::string& path) {
  return KxTransFileMonitor::getInstance()->hasFolder(path);
}

}  // namespace

TranscodeServer::TranscodeServer(Configuration configuration, bool isDaemon)
    : m_configuration(std::move(configuration)),
      m_rule(geteuid(), allowedGroup(m_configuration.allowGroup)),
      m_loop(loopServer(), m_configuration.maxUnits, m_configuration.settleTime), m_jobs(m_loop),
      m_watch(m_loop), m_connections(connectionHandlers(),
                                     {m_configuration.maxClients, m_configuration.recordTime}) {
  m_isDaemon = isDaemon ? 1 : 0;
  m_enableExtraTranscode = m_configuration.extraTranscode ? 1 : 0;
  m_mediaDB2XmlPath = m_configuration.libraryFolderFile;
  m_workingPath = m_configuration.workingPath;
  m_dbPath = m_configuration.dbPath;
  m_xCodeSvrXmlPath = m_configuration.folderFile;
}

TranscodeServer::~TranscodeServer() = default;

ClientConnections::Handlers TranscodeServer::connectionHandlers() {
  return {[this] { return sockAccept(); },
          [this](int fd, KxSockData_s& request) {
            return sockReadStruct(&request, sizeof request, fd) == sizeof request;
          },
          [this](int fd, KxSockData_s& request) { svrDispatch(fd, request); },
          [this](int fd) { sockClose(fd); }};
}

ScheduleLoop::Server TranscodeServer::loopServer() {
  return {[this] { return m_isEnding ? SVR_STOPPED : getSvrStatus(); },
          [this] { return isDiskFull() != 0; }, [this] { return pauseEnd(); },
          [this] {
            setSvrStatus(SVR_RUNNING);
            setPauseSec(0);
          }};
}

int TranscodeServer::svrInit() {
  if (KxTransDBMgr::getInstance()->init(m_dbPath) != 0) {
    KX_LOG_LEVEL(2, "the job store %s cannot be opened\n", m_dbPath.c_str());
    return 1;
  }
  recoverFromCrash();
  // Without control groups the service works unconfined, and the resources are there.
  if (KxResMgr2::getInstance()->init(m_configuration.cgroupName) != 0)
    KX_LOG_LEVEL(2, "resources or limits are not complete, we go on without them\n");
  if (!m_watch.init(m_mediaDB2XmlPath, m_xCodeSvrXmlPath))
    KX_LOG_LEVEL(2, "the list of watched folders cannot be read, no folder is watched\n");
  if (!openSocket()) return 1;
  setSvrStatus(SVR_RUNNING);
  m_loop.start();
  m_connections.start();
  m_watch.start();
  KX_LOG_LEVEL(4, "serving on %s\n", m_configuration.socketPath.c_str());
  return 0;
}

bool TranscodeServer::openSocket() {
  const std::string& path = m_configuration.socketPath;
  if (sockInit(path) == 0 && sockListen(kBacklog) == 0) return true;
  KX_LOG_LEVEL(2, "the control socket %s cannot be opened\n", path.c_str());
  return false;
}

int TranscodeServer::svrRun() {
  StopSignal::wait();
  KX_LOG_LEVEL(4, "ending\n");
  m_isEnding = true;
  const bool unitsEnded = m_loop.stop(kUnitsEnd);
  if (!unitsEnded) KX_LOG_LEVEL(2, "a unit did not stop in time\n");
  // Clients first: a folder request needs folder watching to the end of its answer.
  const bool clientsEnded = m_connections.stop([this] { wakeAcceptor(); }, kClientsEnd);
  const bool watchEnded = m_watch.stop(kWatchEnd);
  if (!watchEnded) KX_LOG_LEVEL(2, "folder watching did not stop in time\n");
  unlink(m_configuration.socketPath.c_str());
  // What could not stop in time dies with the process, and its files are removed by the next.
  if (unitsEnded && clientsEnded && watchEnded) KxTransDBMgr::getInstance()->uninit();
  KX_LOG_LEVEL(4, "ended\n");
  return unitsEnded ? 0 : 1;
}

void TranscodeServer::wakeAcceptor() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  m_configuration.socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    KX_LOG_ERRNO("connect to %s fail", m_configuration.socketPath.c_str());
}

int TranscodeServer::svrDispatch(int fd, KxSockData_s& request) {
  const int32_t code = requestNumber(request, 0);
  const Command* command = findCommand(code);
  if (command == nullptr) return refuse(fd, request, "unknown command " + std::to_string(code));
  if (m_isEnding) return refuse(fd, request, "the service is ending");
  if (!mayUse(fd, command->right)) {
    KX_LOG_LEVEL(3, "%s refused: the client has no right to it\n", command->name);
    return refuse(fd, request, "permission denied");
  }
  try {
    command->check(request);
  } catch (const RequestError& error) {
    return refuse(fd, request, error.what());
  }
  const int result = command->handler != nullptr ? (this->*command->handler)(fd, request)
                                                 : answerWith(fd, request, command->job);
  if (command->right == Right::Change) m_loop.notify();
  return result;
}

bool TranscodeServer::mayUse(int fd, Right right) const {
  if (right == Right::Everybody) return true;
  const std::optional<Peer> peer = peerOf(fd);
  return peer && m_rule.mayChange(*peer);
}

int TranscodeServer::refuse(int fd, const KxSockData_s& request, const std::string& why) {
  return xcoded::sendAnswer(fd, requestNumber(request, 0), Answer::failure(why)) ? 0 : 1;
}

int TranscodeServer::answerWith(int fd, const KxSockData_s& request,
                                Answer (JobCommands::*command)(int, const KxSockData_s&)) {
  Answer answer;
  try {
    answer = (m_jobs.*command)(fd, request);
  } catch (const RequestError& error) {
    answer = Answer::failure(error.what());
  } catch (const std::exception& error) {
    KX_LOG_LEVEL(2, "command %d: %s\n", requestNumber(request, 0), error.what());
    answer = Answer::failure("the service could not do it");
  }
  return xcoded::sendAnswer(fd, requestNumber(request, 0), answer) ? 0 : 1;
}

int TranscodeServer::addFolder(int fd, KxSockData_s& request) {
  try {
    checkTarget(requestText(request, 2));
    checkWatchable(requestPath(request, 1));
    if (isWatched(requestPath(request, 1))) throw RequestError("the folder is watched already");
  } catch (const RequestError& error) {
    return refuse(fd, request, error.what());
  }
  return KxAbsTranscodeSvr::addFolder(fd, request);
}

int TranscodeServer::updateFolder(int fd, KxSockData_s& request) {
  try {
    checkTarget(requestText(request, 2));
    if (!isWatched(requestPath(request, 1))) throw RequestError("the folder is not watched");
  } catch (const RequestError& error) {
    return refuse(fd, request, error.what());
  }
  return KxAbsTranscodeSvr::updateFolder(fd, request);
}

int TranscodeServer::delFolder(int fd, KxSockData_s& request) {
  return answerWith(fd, request, &JobCommands::removeFolder);
}

int TranscodeServer::dumpJob(int, KxSockData_s&) {
  m_jobs.dump();
  return 0;
}

int TranscodeServer::addJob(int fd, KxSockData_s& request) {
  return answerWith(fd, request, &JobCommands::add);
}

int TranscodeServer::queryJob(int fd, KxSockData_s& request) {
  return answerWith(fd, request, &JobCommands::query);
}

void TranscodeServer::setPauseSec(int seconds) {
  MutexLock lock(m_pauseMutex);
  m_pauseStart = std::chrono::steady_clock::now();
  m_pause = seconds;
}

std::optional<std::chrono::steady_clock::time_point> TranscodeServer::pauseEnd() {
  MutexLock lock(m_pauseMutex);
  if (getSvrStatus() != SVR_PAUSED || m_pause <= 0) return std::nullopt;
  return m_pauseStart + std::chrono::seconds(m_pause);
}

int TranscodeServer::isEnableExtraTranscode() const {
  MutexLock lock(m_switchMutex);
  return KxAbsTranscodeSvr::isEnableExtraTranscode();
}

int TranscodeServer::setExtraTranscode(int value) {
  MutexLock lock(m_switchMutex);
  return KxAbsTranscodeSvr::setExtraTranscode(value);
}

int TranscodeServer::isDiskFull() {
  if (m_configuration.minFreeMb < 0) return KxAbsTranscodeSvr::isDiskFull();
  struct statvfs room {};
  if (statvfs(m_dbPath.c_str(), &room) != 0) {
    KX_LOG_ERRNO("statvfs() %s fail", m_dbPath.c_str());
    return 1;
  }
  const uint64_t free = uint64_t{room.f_bsize} * room.f_bfree;
  return free < static_cast<uint64_t>(m_configuration.minFreeMb) << 20 ? 1 : 0;
}

}  // namespace xcoded
