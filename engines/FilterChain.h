#pragma once

#include <string>
#include <vector>

#include "KxMediainfo.h"
#include "KxTranscoder.h"
#include "engines/OutputSize.h"
#include "engines/SubtitleFilter.h"

namespace engines {

// The plain chain: scale to the size (skipped unless both are positive), compensate the
// rotation, convert to a pixel format that every H.264 profile takes.
std::string videoFilter(const PictureSize& size, int degree);

// Extra arguments for the software encoder (TranscodeParam::m_extraCmds), which come after
// the plain command and override it:
//   - a whole "-vf" chain when the plain one would give a wrong picture: distorted (rotated
//     without a known sample aspect ratio), mirrored, with an odd side that the encoder
//     refuses, or without the subtitle that was asked for;
//   - "-movflags +faststart" for MP4.
// Subtitles stored as pictures cannot be drawn by a filter chain and are left out.
// Works on parameters before and after KxTranscoder::init(); empty when nothing is needed.
std::vector<std::string> correctedVideoFilter(const TranscodeParam& param, KxMediaInfo& info);

}  // namespace engines
