#pragma once

#include <sys/types.h>

// What a child does between fork and exec. Only async-signal-safe calls, nothing throws.
namespace childsetup {

// How arming the parent-death signal ended.
enum class DeathSignal { Armed, PrctlFailed, ParentGone };

// Asks for SIGTERM when the parent ends, then makes sure that it had not ended before.
DeathSignal armDeathSignal(pid_t parent);

// Unblocks every signal and gives it back its default action: a parent that ignores or blocks
// SIGTERM or SIGPIPE would otherwise start programs that nothing can stop.
void resetSignals();

}  // namespace childsetup
