#include "resources/PieceCommand.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace runner {
namespace {

constexpr int kMostPieces = 4;
// Part of a picture's length by which a picture of a result may be off.
constexpr double kTolerance = 0.5;

std::string lastValueOf(const std::vector<std::string>& command, const char* option) {
  const auto found = std::find(command.rbegin(), command.rend(), option);
  return found == command.rend() || found == command.rbegin() ? "" : *(found.base());
}

// Repeats pictures at the ends of a piece; the number of pictures is limited elsewhere.
std::string padding(const PiecePlan& piece, const CutPlan& plan) {
  std::string filter = "tpad=start_mode=clone:stop_mode=clone";
  if (piece.padStart > 0) filter += ":start=" + std::to_string(piece.padStart);
  if (piece.padEnd > 0) {
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%.6f",
             static_cast<double>(piece.padEnd + 1) * plan.rateDen / plan.rateNum);
    filter += std::string(":stop_duration=") + seconds;
  }
  return filter;
}

}  // namespace

PieceThreads pieceThreads(int processors) {
  const int pieces = std::clamp(processors, 1, kMostPieces);
  return {pieces, std::max(1, processors / pieces)};
}

std::vector<std::string> pieceCommand(std::vector<std::string> command, const CutPlan& plan,
                                      size_t piece, int threads) {
  if (command.empty()) return command;
  const PiecePlan& wanted = plan.pieces.at(piece);
  std::vector<std::string> more = {"-r", std::to_string(plan.rateNum) + "/" +
                                             std::to_string(plan.rateDen)};
  const bool isLast = piece + 1 == plan.pieces.size();
  if (!isLast) more.insert(more.end(), {"-frames:v", std::to_string(wanted.frames)});
  if (wanted.padStart > 0 || wanted.padEnd > 0) {
    const std::string chain = lastValueOf(command, "-vf");
    more.insert(more.end(), {"-vf", (chain.empty() ? "" : chain + ",") + padding(wanted, plan)});
  }
  // The length of the piece decides where the next one is joined; in milliseconds it is not exact.
  more.insert(more.end(), {"-movie_timescale", std::to_string(plan.rateNum), "-threads",
                           std::to_string(threads)});
  command.insert(command.end() - 1, more.begin(), more.end());
  return command;
}

std::vector<std::string> recountCommand(const std::string& ffmpeg, const CutPlan& plan,
                                        const std::string& made, const std::string& output) {
  // As the encoder chooses it for the rate of the pictures.
  constexpr int kFewestTicks = 10000;
  int ticks = plan.rateNum;
  while (ticks < kFewestTicks) ticks *= 2;
  return {ffmpeg,
          "-y",
          "-i",
          made,
          "-map",
          "0:v:0",
          "-c",
          "copy",
          "-video_track_timescale",
          std::to_string(ticks),
          "-movie_timescale",
          std::to_string(plan.rateNum),
          "-f",
          "mp4",
          output};
}

std::string framesFault(const VideoTimes& result, const CutPlan& plan, int64_t frames,
                        bool atLeast) {
  const auto count = static_cast<int64_t>(result.seconds.size());
  if (count < frames || (!atLeast && count > frames)) {
    return "it has " + std::to_string(count) + " pictures instead of " + std::to_string(frames);
  }
  std::vector<double> shown = result.seconds;
  std::ranges::sort(shown);
  const double rate = static_cast<double>(plan.rateNum) / plan.rateDen;
  for (size_t i = 0; i < shown.size(); ++i) {
    const double off = (shown[i] - shown[0]) * rate - static_cast<double>(i);
    if (std::abs(off) > kTolerance)
      return "picture " + std::to_string(i) + " comes at the wrong time";
  }
  return "";
}

}  // namespace runner
