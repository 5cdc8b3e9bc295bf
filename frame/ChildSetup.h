#pragma once

#include <signal.h>
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

// Blocks every signal of the calling thread while a child is made. Until resetSignals() runs in
// it the child has this process's handlers: one that ran there would act on what both share,
// such as the descriptor that ends this process, and the child would miss the signal.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_before);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t m_before;
};

}  // namespace childsetup
