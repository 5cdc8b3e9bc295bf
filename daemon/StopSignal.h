#pragma once

namespace xcoded {

// Turns SIGTERM and SIGINT into something to wait for, and keeps SIGPIPE from ending the
// process. Handlers, not an ignored or blocked signal: children inherit the latter two across
// exec, and an encoder with SIGTERM blocked could not be stopped.
class StopSignal {
 public:
  // Installs the handlers; once per process. False on failure.
  static bool install();
  // Waits for a signal or for raise().
  static void wait();
  // What a signal does; may be called from anywhere.
  static void raise();
};

}  // namespace xcoded
