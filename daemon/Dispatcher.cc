#include "daemon/Dispatcher.h"

#include <algorithm>

#include "KxCommand.h"
#include "KxHostPlatform.h"
#include "daemon/RequestJson.h"

namespace xcoded {
namespace {

constexpr int kLeastMemoryKb = 64 * 1024;

void nothing(const KxSockData_s&) {}

void cpuLimit(const KxSockData_s& request) {
  const int percent = requestNumber(request, 1);
  if (percent < 1 || percent > 100)
    throw RequestError("the limit is not between 1 and 100 percent");
}

// The handler stores what it gets before it applies it, so a limit that cannot be applied
// must not get there.
void memLimit(const KxSockData_s& request) {
  const int limit = requestNumber(request, 1);
  if (limit == -1) return;
  if (limit < kLeastMemoryKb || limit >= MyUtil_GetTotalMem()) {
    throw RequestError("the limit is neither -1 nor between " + std::to_string(kLeastMemoryKb) +
                       " kB and the memory of the machine");
  }
}

void onOff(const KxSockData_s& request) {
  const int value = requestNumber(request, 1);
  if (value != 0 && value != 1) throw RequestError("the switch is neither 0 nor 1");
}

void folder(const KxSockData_s& request) {
  const std::string path = requestPath(request, 1);
  if (path.find_first_not_of('/') == std::string::npos)
    throw RequestError("the whole file system cannot be watched");
  for (const std::string system : {"/proc", "/sys", "/dev"}) {
    if (path == system || path.compare(0, system.size() + 1, system + "/") == 0)
      throw RequestError(system + " cannot be watched");
  }
}

void folderAndTarget(const KxSockData_s& request) {
  folder(request);
  requestText(request, 2);
}

using Server = KxAbsTranscodeSvr;
using StatusHandler = int (Server::*)(int, KxSockData_s&);
constexpr StatusHandler kStatus = &Server::getSvrStatus;  // picks the overload

}  // namespace

const std::vector<Command>& commandTable() {
  using enum Right;
  using Jobs = JobCommands;
  static const std::vector<Command> table = {
      {KX_CMD_REG_PROCESS, "reg-process", Change, nothing, nullptr, &Jobs::registerProcess},
      {KX_CMD_START, "start", Change, nothing, &Server::svrStart, nullptr},
      {KX_CMD_STOP, "stop", Change, nothing, &Server::svrStop, nullptr},
      {KX_CMD_PAUSE, "pause", Change, nothing, &Server::svrPause, nullptr},
      {KX_CMD_GET_SVR_STATUS, "get-svr-status", Everybody, nothing, kStatus, nullptr},
      {KX_CMD_GET_CPU_LIMIT, "get-cpu-limit", Everybody, nothing, &Server::getCGroupCPULimit,
       nullptr},
      {KX_CMD_SET_CPU_LIMIT, "set-cpu-limit", Change, cpuLimit, &Server::setCGroupCPULimit,
       nullptr},
      {KX_CMD_GET_MEM_LIMIT, "get-mem-limit", Everybody, nothing, &Server::getCGroupMemLimit,
       nullptr},
      {KX_CMD_SET_MEM_LIMIT, "set-mem-limit", Change, memLimit, &Server::setCGroupMemLimit,
       nullptr},
      {KX_CMD_DUMP_RES, "dump-res", Change, nothing, &Server::dumpRes, nullptr},
      {KX_CMD_DUMP_UNIT, "dump-unit", Change, nothing, &Server::dumpUnit, nullptr},
      {KX_CMD_DUMP_JOB, "dump-job", Change, nothing, &Server::dumpJob, nullptr},
      {KX_CMD_GET_SVR_CONF, "get-svr-conf", Everybody, nothing, &Server::getSvrConf, nullptr},
      {KX_CMD_ADD_FOLDER, "add-folder", Change, folderAndTarget, &Server::addFolder, nullptr},
      {KX_CMD_DEL_FOLDER, "del-folder", Change, folder, &Server::delFolder, nullptr},
      {KX_CMD_UPDATE_FOLDER, "update-folder", Change, folderAndTarget, &Server::updateFolder,
       nullptr},
      {KX_CMD_BUILD_ALL, "build-all", Change, nothing, &Server::buildAll, nullptr},
      {KX_CMD_STOP_BUILD_ALL, "stop-build-all", Change, nothing, &Server::stopBuildAll, nullptr},
      {KX_CMD_ADD_JOB, "add-job", Change, nothing, &Server::addJob, nullptr},
      {KX_CMD_QUERY_JOB, "query-job", Everybody, nothing, &Server::queryJob, nullptr},
      {KX_CMD_GET_RESOURCE, "get-resource", Everybody, nothing, &Server::getResource, nullptr},
      {KX_CMD_GET_PROCESS_INFO, "get-process-info", Everybody, nothing,
       &Server::getTranscodeProcessInfo, nullptr},
      {KX_CMD_GET_STATUS, "get-status", Everybody, nothing, &Server::getStatus, nullptr},
      {KX_CMD_GET_EXTRA, "get-extra", Everybody, nothing, &Server::getExtraTranscodeInfo, nullptr},
      {KX_CMD_SET_EXTRA, "set-extra", Change, onOff, &Server::setExtraTranscodeInfo, nullptr},
      {KX_CMD_DELETE_JOB, "delete-job", Change, nothing, nullptr, &Jobs::remove},
      {KX_CMD_CANCEL_JOB, "cancel-job", Change, nothing, nullptr, &Jobs::cancel},
      {KX_CMD_RETRY_JOB, "retry-job", Change, nothing, nullptr, &Jobs::retry},
      {KX_CMD_SWAP_JOB, "swap-job", Change, nothing, nullptr, &Jobs::swapPlaces},
      {KX_CMD_MOVE_JOB, "move-job", Change, nothing, nullptr, &Jobs::move},
      {KX_CMD_CLEAN_JOBS, "clean-jobs", Change, nothing, nullptr, &Jobs::clean},
      {KX_CMD_COUNT_JOB, "count-job", Everybody, nothing, nullptr, &Jobs::count},
      {KX_CMD_IMPORT_LEGACY, "import-legacy", Change, nothing, nullptr, &Jobs::importLegacy},
      {KX_CMD_SHOW_JOB, "show-job", Everybody, nothing, nullptr, &Jobs::show},
      {KX_CMD_WATCH_STATUS, "watch-status", Everybody, nothing, nullptr, &Jobs::watchStatus},
  };
  return table;
}

const Command* findCommand(int32_t code) {
  const std::vector<Command>& table = commandTable();
  const auto found = std::find_if(table.begin(), table.end(),
                                  [&](const Command& command) { return command.code == code; });
  return found == table.end() ? nullptr : &*found;
}

}  // namespace xcoded
