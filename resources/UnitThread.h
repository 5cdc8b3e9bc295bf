#pragma once

// The thread routine that a unit's start() launches: unitBGTranscodeThread, unless a test of
// the unit alone puts a runner of its own in its place.

using UnitThreadRoutine = void* (*)(void*);

// nullptr restores the default. Set while no unit is being started.
void setUnitThreadRoutine(UnitThreadRoutine routine);
