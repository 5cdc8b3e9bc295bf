#pragma once

#include <string>
#include <vector>

#include "KxMediainfo.h"
#include "KxTranscoder.h"
#include "engines/EngineNote.h"

// Decides whether a source is transcoded in pieces, and how it is taken apart. Nothing here
// has side effects but collectSegments(), which looks for files.

namespace engines {

// Length from which a source is worth cutting, and length of a piece; seconds.
constexpr int kSegmentSourceSeconds = 1200;
constexpr int kSegmentSeconds = 120;

// True when the source qualifies. Notes what was found under "doSegment".
// @param duration whole seconds; @param video the chosen video stream, empty when unreadable
bool sourceCanBeCut(const TranscodeParam& param, int duration, const KxStream& video,
                    std::vector<EngineNote>& notes);
// True when machines of this kind transcode in pieces; noted likewise.
bool platformCanCut(const std::string& name, int type, std::vector<EngineNote>& notes);

// Re-encodes the audio of the source into a file of its own.
std::vector<std::string> sideAudioCommand(const std::string& ffmpeg, const std::string& input,
                                          const TranscodeParam& param, const std::string& output);

// Cuts the video of the source into numbered pieces in a folder with trailing "/".
std::vector<std::string> cutCommand(const std::string& ffmpeg, const std::string& input,
                                    int formatId, const std::string& folder);

// Names of one piece in a folder with trailing "/".
Seg_t segmentAt(const std::string& folder, int formatId, size_t index);

// The pieces that a cut left in the folder, up to the first missing number.
std::vector<Seg_t> collectSegments(const std::string& folder, int formatId);

}  // namespace engines
