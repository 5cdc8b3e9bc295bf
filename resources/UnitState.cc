#include "resources/UnitState.h"

#include <array>

namespace {

constexpr size_t kStateCount = UNIT_FINISH + 1;
using Row = std::array<UnitTransition, kStateCount>;

constexpr UnitTransition refuse(const char* text, KxUnitState_e state) {
  return {text, state, 1, UnitAction::kNone};
}

constexpr UnitTransition keep(const char* text, KxUnitState_e state) {
  return {text, state, 0, UnitAction::kNone};
}

constexpr UnitTransition move(const char* text, KxUnitState_e to, UnitAction action) {
  return {text, to, 0, action};
}

constexpr Row kStartRow = {
    refuse("this unit do not init\n", UNIT_UNDEFINED),
    move("already_init -> start, this unit is start\n", UNIT_START, UnitAction::kLaunchRunner),
    keep("this unit is already start\n", UNIT_START),
    refuse("stop -> start, illegal behavior\n", UNIT_STOP),
    move("pending -> start, this unit is reinvoked\n", UNIT_START, UnitAction::kLaunchRunner),
    refuse("finish -> start, illegal behavior\n", UNIT_FINISH),
};

constexpr Row kStopRow = {
    refuse("this unit do not init\n", UNIT_UNDEFINED),
    move("already_init -> stop, this unit is already stop\n", UNIT_FINISH, UnitAction::kNone),
    move("start -> stop, stop this unit\n", UNIT_STOP, UnitAction::kEndRun),
    keep("stop -> stop, this unit is already stop\n", UNIT_STOP),
    move("pending -> stop, we update job DB status as WAIT and set KxTranscodeUnit status as "
         "finish\n",
         UNIT_FINISH, UnitAction::kWriteBack),
    refuse("finish -> stop, illegal behavior\n", UNIT_FINISH),
};

constexpr Row kPendingRow = {
    refuse("this unit do not init\n", UNIT_UNDEFINED),
    move("already_init -> pending, set status to finish\n", UNIT_FINISH, UnitAction::kNone),
    move("start -> pending, pending transcode\n", UNIT_PENDING, UnitAction::kEndRun),
    refuse("stop -> pending, illegal behavior.\n", UNIT_STOP),
    keep("pending -> pending, this unit is already pending\n", UNIT_PENDING),
    refuse("this unit is finish, illegal behavior.\n", UNIT_FINISH),
};

struct CallRules {
  const Row* row;
  const char* unknownState;
};

constexpr std::array<CallRules, 3> kRules = {{
    {&kStartRow, "? -> start, this unit is in undefine status, illegal behavior\n"},
    {&kStopRow, "? -> stop, this unit is in undefine status, illegal behavior\n"},
    {&kPendingRow, "? -> pending, this unit is in undefine status, illegal behavior\n"},
}};

}  // namespace

UnitTransition unitTransition(UnitCall call, KxUnitState_e from) {
  const CallRules& rules = kRules[static_cast<size_t>(call)];
  const auto index = static_cast<size_t>(from);
  if (index >= kStateCount) return refuse(rules.unknownState, from);
  return (*rules.row)[index];
}
