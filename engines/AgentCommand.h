#pragma once

#include "KxResource2.h"
#include "engines/EngineCommand.h"

namespace engines {

// Command line of the hardware transcode agent. Pure.
EngineCommand agentCommand(const TranscodeParam& param, const EngineFacts& facts,
                           const KxResource2& resource);

}  // namespace engines
