#pragma once

#include <string>
#include <vector>

#include "KxTranscoder.h"
#include "engines/EngineNote.h"

// Joins transcoded pieces. Messages are those of the transcoder's "doMerge".

namespace engines {

// Writes the list of the results that exist. False, with the reason in the log, when it is
// not complete.
bool writeMergeList(const std::string& path, const std::vector<Seg_t>& segments);

// Joins what the list names with the audio of another file. Pure.
std::vector<std::string> mergeCommand(const std::string& ffmpeg, const std::string& list,
                                      const std::string& sideAudio, const TranscodeParam& param,
                                      std::vector<EngineNote>& notes);

// Copies a joined MP4 file with its index in front, as a player that streams needs it, and with
// the description and the chapters of the source. Pure.
std::vector<std::string> indexInFrontCommand(const std::string& ffmpeg, const std::string& joined,
                                             const std::string& source, const std::string& output);

}  // namespace engines
