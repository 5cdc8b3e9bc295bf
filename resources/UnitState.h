#pragma once

#include "KxTranscodeUnit2.h"

// The state machine of a unit as data: what each call does in each state.

enum class UnitCall { kStart, kStop, kPending };

enum class UnitAction {
  kNone,
  kLaunchRunner,  // begin a new run
  kEndRun,        // tell the current run that it has to end
  kWriteBack,     // the job goes back to the queue as waiting
};

struct UnitTransition {
  const char* text;  // what is logged
  KxUnitState_e to;
  int result;
  UnitAction action;
};

// Total: a state outside the enumeration keeps its value and is refused.
UnitTransition unitTransition(UnitCall call, KxUnitState_e from);
