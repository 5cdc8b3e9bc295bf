#pragma once

#include "KxMusicTranscoder.h"
#include "engines/EngineCommand.h"

namespace engines {

// The encoder's command line of an audio transcode. Both engines run the same one; `function`
// is the name that its notes are logged under.
EngineCommand musicCommand(const MusicTranscodeParam& param, const EngineFacts& facts,
                           const char* function);

}  // namespace engines
