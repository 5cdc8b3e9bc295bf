#pragma once

#include <string>
#include <vector>

#include "KxMediainfo.h"
#include "KxTranscoder.h"
#include "engines/EngineNote.h"

namespace engines {

// Row of gTransConfig that a profile file name selects, or null. Notes the choice.
const TransConfigEntry* selectProfile(const std::string& profileFile,
                                      std::vector<EngineNote>& notes);

// Completes parameters from a row. The audio codec depends on the source's audio stream and
// on what the platform can encode.
void applyProfile(const TransConfigEntry& row, const KxStream& sourceAudio, bool platformHasAac,
                  TranscodeParam& param);

// Checks format, seek time and codec, and asks for a fast start of MP4. 0 when all is well.
int checkParameters(TranscodeParam& param, std::vector<EngineNote>& notes);

}  // namespace engines
