#pragma once

#include <string>

#include "resources/JobRun.h"

// What a run writes to the job's row. Each takes the job store's lock for itself.

namespace runner {

// Keeps why a resource was left, while the job goes on.
void keepReason(const JobRun& run, const std::string& reason);
// Forgets what an earlier run of the job left.
void forgetReason(const JobRun& run);

// Writes dates, status and reason at the end of a run: done or failed, or back to waiting when
// it was stopped. A done job keeps which resources were left on the way, and why. A suspended run
// writes nothing.
// @param state what the unit says at the end of the run
void writeOutcome(const JobRun& run, KxUnitState_e state, bool succeeded);

}  // namespace runner
