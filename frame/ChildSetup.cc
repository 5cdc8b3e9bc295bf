#include "frame/ChildSetup.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace childsetup {

DeathSignal armDeathSignal(pid_t parent) {
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) return DeathSignal::PrctlFailed;
  return getppid() == parent ? DeathSignal::Armed : DeathSignal::ParentGone;
}

void resetSignals() {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int number = 1; number <= SIGRTMAX; ++number) sigaction(number, &standard, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace childsetup
