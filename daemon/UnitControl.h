#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "KxDBTask.h"
#include "KxTranscodeUnit2.h"

// What is done to units; Scheduler decides about it. Every function takes the locks it needs
// and may be called from any thread that holds none of them.

namespace xcoded {

using JobFilter = std::function<bool(const KxDBTaskParam& job)>;

// The jobs that have a unit, finished units included until they are freed.
std::vector<KxDBTaskParam> unitJobs();

// Makes a unit for a waiting job and starts it, in one section of the manager's lock: the row
// is running exactly when a unit has it. Does nothing and returns false when the service does
// not run any more, the row does not wait any more, or a unit has the job already.
bool startUnit(int64_t jobId, const std::function<bool()>& isRunning);

// Asks the units of matching jobs to stop; returns at once.
void stopUnits(const JobFilter& matches);
void stopAllUnits();

// Frees the finished units.
void reapUnits();

// Puts rows that are marked as running although no unit has them back into the queue.
void requeueOrphans();

// Frees registrations of outside processes that are gone.
void checkRegistrations();

// Ends a pause: starts the suspended units again. @p stillPaused is asked and @p resumed
// called under the manager's lock.
void resumeUnits(const std::function<bool()>& stillPaused, const std::function<void()>& resumed);

// Number of hardware resources. Asks the devices, so it may take a moment.
int countHardwareResources();

}  // namespace xcoded
