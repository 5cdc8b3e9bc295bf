#pragma once

#include <cstdint>
#include <vector>

#include "KxAbstractTranscodeSvr.h"
#include "daemon/JobCommands.h"

namespace xcoded {

// Who may send a command.
enum class Right {
  Everybody,
  Change,  // AccessRule::mayChange()
};

// One command of the control socket.
struct Command {
  int32_t code;
  const char* name;
  Right right;
  // Refuses bad arguments by throwing RequestError before a handler that trusts them.
  void (*check)(const KxSockData_s& request);
  // Exactly one of the two: a handler of the server, which writes its answer, or one of the
  // job commands, which returns it.
  int (KxAbsTranscodeSvr::*handler)(int fd, KxSockData_s& request);
  Answer (JobCommands::*job)(int fd, const KxSockData_s& request);
};

// All commands, in the order of their codes.
const std::vector<Command>& commandTable();
// The command with a code, or null.
const Command* findCommand(int32_t code);

}  // namespace xcoded
