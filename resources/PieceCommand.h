#pragma once

#include <string>
#include <vector>

#include "resources/CutPlan.h"

namespace runner {

// How many pieces the CPU encodes at a time, and with how many threads each. One thread a piece
// wastes the least; beyond four pieces their memory counts more.
struct PieceThreads {
  int pieces = 1;
  int threads = 1;
};
PieceThreads pieceThreads(int processors);

// Makes the command that transcodes a piece on the CPU give exactly the pictures that the plan
// has for it. The command's last word is its output. Pure.
std::vector<std::string> pieceCommand(std::vector<std::string> command, const CutPlan& plan,
                                      size_t piece, int threads);

// Copies what a card made of a piece so that it counts its time as the pieces of the CPU do: in
// steps of other lengths the join would add up the errors of rounding. Pure.
std::vector<std::string> recountCommand(const std::string& ffmpeg, const CutPlan& plan,
                                        const std::string& made, const std::string& output);

// Why the pictures of a result are not the planned ones; empty when they are.
// @param atLeast more may follow, as the encoder may repeat the last picture of a source
std::string framesFault(const VideoTimes& result, const CutPlan& plan, int64_t frames,
                        bool atLeast);

}  // namespace runner
