#include "resources/CutPlan.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <sstream>

namespace runner {
namespace {

// Parts of a picture's length. The encoder rounds at a half, and a piece starts with the
// deviation of its first picture.
constexpr double kMostDeviation = 0.2;
constexpr double kRoundingSafety = 0.01;
// The encoder takes a longer gap for a break of the time stamps.
constexpr double kLongestGap = 5.0;  // seconds
constexpr const char* kPlanHead = "pieces";
constexpr const char* kPlanEnd = "end";

double rateOf(const VideoTimes& source) {
  return static_cast<double>(source.rateNum) / source.rateDen;
}

// The raster of a source: numbers of its pictures in the result.
struct Raster {
  double rate = 0;
  double first = 0;  // time of the first shown picture, in pictures

  explicit Raster(const VideoTimes& source)
      : rate(rateOf(source)), first(*std::ranges::min_element(source.seconds) * rate) {}

  double offset(double seconds) const { return seconds * rate - first; }
  int64_t number(double seconds) const {
    return std::llround(first) + std::llround(offset(seconds));
  }
};

// When the pictures of one piece are shown, in seconds.
struct Span {
  double begin;  // of the picture that the piece begins with
  double first;
  double last;
};

std::vector<Span> spansOf(const VideoTimes& source, const std::vector<int64_t>& packets) {
  std::vector<Span> spans;
  auto begin = source.seconds.begin();
  for (const int64_t count : packets) {
    const auto [first, last] = std::minmax_element(begin, begin + count);
    spans.push_back({*begin, *first, *last});
    begin += count;
  }
  return spans;
}

std::string spansFault(const std::vector<Span>& spans) {
  for (size_t i = 0; i < spans.size(); ++i) {
    // Pictures that are shown before the one that a piece begins with need the piece before it.
    if (spans[i].first < spans[i].begin) return "its pieces need each other";
    if (i > 0 && spans[i].first <= spans[i - 1].last) return "its pieces overlap";
  }
  return "";
}

// @param begin,end numbers of the pictures of the result that the piece covers
PiecePlan planPiece(const Raster& raster, const Span& span, int64_t begin, int64_t end) {
  PiecePlan piece;
  piece.frames = end - begin;
  piece.padStart = raster.number(span.first) - begin;
  // The encoder counts from the first picture of the piece, so it may lack one at the end.
  const int64_t own = std::llround((span.last - span.first) * raster.rate) + 1;
  piece.padEnd = std::max<int64_t>(0, piece.frames - piece.padStart - own);
  return piece;
}

CutPlan refused(const std::string& fault) {
  CutPlan plan;
  plan.fault = fault;
  return plan;
}

}  // namespace

int64_t CutPlan::frames() const {
  return std::accumulate(pieces.begin(), pieces.end(), int64_t{0},
                         [](int64_t sum, const PiecePlan& piece) { return sum + piece.frames; });
}

std::string rasterFault(const VideoTimes& source) {
  if (source.seconds.empty()) return "it has no pictures";
  const Raster raster(source);
  std::vector<double> shown = source.seconds;
  std::ranges::sort(shown);
  double most = 0;
  for (size_t i = 0; i < shown.size(); ++i) {
    const double offset = raster.offset(shown[i]);
    most = std::max(most, std::abs(offset - std::round(offset)));
    if (i == 0) continue;
    if (shown[i] - shown[i - 1] > kLongestGap) return "there is a gap in its time stamps";
    if (raster.number(shown[i]) <= raster.number(shown[i - 1]))
      return "its pictures come faster than its picture rate";
  }
  if (most > kMostDeviation) return "its pictures come at irregular times";
  const double toHalf = std::abs(std::abs(raster.first - std::round(raster.first)) - 0.5);
  if (toHalf < most + kRoundingSafety) return "its first picture comes between two of the result";
  if (raster.first < -0.5) return "its pictures start before its start";
  return "";
}

CutPlan planCut(const VideoTimes& source, const std::vector<int64_t>& packets) {
  std::string fault = rasterFault(source);
  if (!fault.empty()) return refused(fault);
  if (packets.size() < 2) return refused("it has no place to be cut at");
  if (std::ranges::min(packets) <= 0) return refused("a piece is empty");
  if (std::accumulate(packets.begin(), packets.end(), int64_t{0}) !=
      static_cast<int64_t>(source.seconds.size()))
    return refused("the pieces do not hold all its pictures");
  const std::vector<Span> spans = spansOf(source, packets);
  fault = spansFault(spans);
  if (!fault.empty()) return refused(fault);
  CutPlan plan;
  plan.rateNum = source.rateNum;
  plan.rateDen = source.rateDen;
  const Raster raster(source);
  int64_t reached = 0;  // pictures of the result before the piece
  for (size_t i = 0; i < spans.size(); ++i) {
    const bool isLast = i + 1 == spans.size();
    const int64_t end =
        isLast ? raster.number(spans[i].last) + 1 : raster.number(spans[i + 1].first);
    plan.pieces.push_back(planPiece(raster, spans[i], reached, end));
    plan.pieces.back().packets = packets[i];
    reached = end;
  }
  return plan;
}

std::string textOfPlan(const CutPlan& plan) {
  std::ostringstream text;
  text << kPlanHead << ' ' << plan.pieces.size() << ' ' << plan.rateNum << ' ' << plan.rateDen
       << '\n';
  for (const PiecePlan& piece : plan.pieces) {
    text << piece.packets << ' ' << piece.frames << ' ' << piece.padStart << ' ' << piece.padEnd
         << '\n';
  }
  text << kPlanEnd << '\n';
  return text.str();
}

CutPlan planOfText(const std::string& text) {
  std::istringstream words(text);
  std::string head;
  size_t count = 0;
  CutPlan plan;
  words >> head >> count >> plan.rateNum >> plan.rateDen;
  for (PiecePlan piece; plan.pieces.size() < count &&
                        words >> piece.packets >> piece.frames >> piece.padStart >> piece.padEnd;)
    plan.pieces.push_back(piece);
  std::string end;
  const bool whole = words >> end && end == kPlanEnd && head == kPlanHead && count >= 2 &&
                     plan.pieces.size() == count && plan.rateNum > 0 && plan.rateDen > 0;
  return whole ? plan : refused("the plan is damaged");
}

}  // namespace runner
