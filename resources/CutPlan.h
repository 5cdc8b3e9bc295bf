#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "resources/VideoTimes.h"

// Decides, from the times of its pictures, whether a source can be cut without a trace, and what
// each piece has to become so that the joined result has the very pictures that the encoder
// makes of the whole source. Pure.
//
// The encoder makes pictures at a constant rate: it shows the first one from the start of the
// file on, and repeats one where the source has a gap. Where the source keeps to the encoder's
// raster, each picture has a number of its own in the result, and so has the first picture of
// each piece.

namespace runner {

// What one piece has to become.
struct PiecePlan {
  int64_t packets = 0;   // pictures of the piece as it was cut
  int64_t frames = 0;    // pictures of its result; of the last piece at least
  int64_t padStart = 0;  // of them repeated in front of the first one
  int64_t padEnd = 0;    // of them repeated after the last one

  bool operator==(const PiecePlan&) const = default;
};

struct CutPlan {
  std::string fault;  // why the source cannot be cut; empty when it can
  int rateNum = 0;    // pictures a second of the result
  int rateDen = 1;
  std::vector<PiecePlan> pieces;

  int64_t frames() const;
};

// Why the times of a source do not fit the encoder's raster; empty when they do.
std::string rasterFault(const VideoTimes& source);

// @param packets number of pictures of each piece, in the order of the source
CutPlan planCut(const VideoTimes& source, const std::vector<int64_t>& packets);

// The plan as lines of text and back. Nothing of a damaged text is taken over: it has a fault.
std::string textOfPlan(const CutPlan& plan);
CutPlan planOfText(const std::string& text);

}  // namespace runner
