#pragma once

#include "engines/EngineCommand.h"

namespace engines {

// Command line of the software encoder. Pure.
EngineCommand softwareCommand(const TranscodeParam& param, const EngineFacts& facts);

// Command line that copies a finished MP4 file into a new one without its rotation.
std::vector<std::string> remuxCommand(const std::string& ffmpeg, const std::string& output);

}  // namespace engines
