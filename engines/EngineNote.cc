#include "engines/EngineNote.h"

#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace engines {

void logNotes(const std::vector<EngineNote>& notes) {
  for (const EngineNote& note : notes) KX_LOG_AS(note.function, "%s", note.text.c_str());
}

}  // namespace engines
