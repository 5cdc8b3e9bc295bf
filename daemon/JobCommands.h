#pragma once

#include "KxAbstractTranscodeSvr.h"
#include "KxDBTask.h"
#include "daemon/AnswerJson.h"
#include "daemon/RequestJson.h"
#include "daemon/ScheduleLoop.h"

namespace xcoded {

// The commands on the queue, and the registration of outside processes. Each reads its
// request strictly before it touches anything, throws RequestError when something is wrong
// with it, and may be called from several threads at once.
class JobCommands {
 public:
  explicit JobCommands(ScheduleLoop& loop) : m_loop(loop) {}

  Answer add(int fd, const KxSockData_s& request);
  Answer query(int fd, const KxSockData_s& request);
  Answer count(int fd, const KxSockData_s& request);
  Answer show(int fd, const KxSockData_s& request);
  Answer remove(int fd, const KxSockData_s& request);
  Answer cancel(int fd, const KxSockData_s& request);
  Answer retry(int fd, const KxSockData_s& request);
  Answer swapPlaces(int fd, const KxSockData_s& request);
  Answer move(int fd, const KxSockData_s& request);
  Answer clean(int fd, const KxSockData_s& request);
  // Takes a watched folder out of the list, when its jobs have stopped.
  Answer removeFolder(int fd, const KxSockData_s& request);
  Answer watchStatus(int fd, const KxSockData_s& request);
  Answer importLegacy(int fd, const KxSockData_s& request);
  Answer registerProcess(int fd, const KxSockData_s& request);

  // Every job that has not ended, into the log.
  void dump();

 private:
  Answer whenStopped(StopOperation operation);
  Answer removeByName(const std::string& path, bool isFolder);

  ScheduleLoop& m_loop;
};

}  // namespace xcoded
