#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "KxAbstractTranscodeSvr.h"
#include "daemon/AccessRule.h"
#include "daemon/AnswerJson.h"
#include "daemon/ClientConnections.h"
#include "daemon/Configuration.h"
#include "daemon/Dispatcher.h"
#include "daemon/FolderWatch.h"
#include "daemon/JobCommands.h"
#include "daemon/Mutex.h"
#include "daemon/ScheduleLoop.h"

namespace xcoded {

// The transcode server: joins the library's handlers, the job commands, the connections and
// the scheduling. Handlers run on the clients' threads.
class TranscodeServer : public KxAbsTranscodeSvr {
 public:
  TranscodeServer(Configuration configuration, bool isDaemon);
  ~TranscodeServer() override;

  // Opens job store, resources and socket and starts the threads. 0 on success.
  int svrInit() override;
  // Serves until StopSignal, then ends in good order: no unit runs, the rows of stopped jobs
  // wait, the socket file is gone. 0 on success. The process must end with _exit() then.
  int svrRun() override;
  // Serves one request: looks the command up, checks right and arguments, has it answered.
  int svrDispatch(int fd, KxSockData_s& request) override;

  // Refuse what the library would take but nobody can want.
  int addFolder(int fd, KxSockData_s& request) override;
  int updateFolder(int fd, KxSockData_s& request) override;
  // Stops the jobs of the folder first.
  int delFolder(int fd, KxSockData_s& request) override;
  int dumpJob(int fd, KxSockData_s& request) override;
  int addJob(int fd, KxSockData_s& request) override;
  int queryJob(int fd, KxSockData_s& request) override;

  // State, pause and switch are read and written on several threads.
  using KxAbsTranscodeSvr::getSvrStatus;
  int getSvrStatus() const override { return m_status; }
  void setSvrStatus(int status) override { m_status = status; }
  int getPauseSec() const override { return m_pause; }
  void setPauseSec(int seconds) override;
  int isEnableExtraTranscode() const override;
  int setExtraTranscode(int value) override;
  int isDiskFull() override;

 private:
  bool openSocket();
  ClientConnections::Handlers connectionHandlers();
  ScheduleLoop::Server loopServer();
  std::optional<std::chrono::steady_clock::time_point> pauseEnd();
  bool mayUse(int fd, Right right) const;
  int refuse(int fd, const KxSockData_s& request, const std::string& why);
  int answerWith(int fd, const KxSockData_s& request,
                 Answer (JobCommands::*command)(int, const KxSockData_s&));
  void wakeAcceptor() const;

  const Configuration m_configuration;
  const AccessRule m_rule;
  std::atomic<int> m_status{SVR_NONE};
  std::atomic<int> m_pause{0};
  std::atomic<bool> m_isEnding{false};
  mutable Mutex m_switchMutex;  // of the base's hardware switch
  Mutex m_pauseMutex;
  std::chrono::steady_clock::time_point m_pauseStart KX_GUARDED_BY(m_pauseMutex);
  ScheduleLoop m_loop;
  JobCommands m_jobs;
  FolderWatch m_watch;
  ClientConnections m_connections;
};

}  // namespace xcoded
