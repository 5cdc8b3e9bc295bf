#include "KxTranscodeUnit2.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscodeUnit2";

// Only the frame of a run so far: every job is left as it is.
void* unitBGTranscodeThread(void* arg) {
  auto* unit = static_cast<KxTranscodeUnit2*>(arg);
  if (unit == nullptr) {
    KX_LOG("no KxTranscodeUnit object\n");
    return nullptr;
  }
  const KxUnitRun run = unit->beginRun();
  unit->waitForTurn(run.generation);
  unit->leave(run.generation);
  return nullptr;
}
