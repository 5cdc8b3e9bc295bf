#include "resources/ResultCheck.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>

#include "resources/ContainerShape.h"
#include "resources/MediaTimes.h"
#include "resources/OutputNames.h"

namespace runner {
namespace {

using Kind = StreamTimes::Kind;

bool near(double result, double source) {
  return std::abs(result - source) <= std::max(1.0, source * 0.02);
}

std::string inSeconds(double value) {
  char text[32];
  snprintf(text, sizeof text, "%.1f s", value);
  return text;
}

// One stream of the result beside the one of the source that it comes from.
struct Pair {
  Kind kind;
  int sourceTrack;
  const char* name;
  const StreamTimes* result;
};

std::string lengthFault(const Pair& pair, double result, double source) {
  return std::string("the ") + pair.name + " of the result lasts " + inSeconds(result) +
         ", of the source " + inSeconds(source);
}

// What a source states of one of its streams, in seconds; nothing when it states nothing.
std::optional<double> statedLength(const std::optional<MediaTimes>& source, const Pair& pair) {
  const StreamTimes* stream = source ? source->find(pair.kind, pair.sourceTrack) : nullptr;
  if (stream == nullptr || stream->stated <= 0) return std::nullopt;
  return stream->stated;
}

bool isLengthKnown(const SourceFacts& source) {
  return source.playTimeMs > 0 && (source.playTimeSource == KX_PLAYTIME_STATED ||
                                   source.playTimeSource == KX_PLAYTIME_MEASURED);
}

// The streams of the result as the stated lengths of the source have them.
std::string statedFault(const std::vector<Pair>& pairs, const SourceFacts& source) {
  const auto times = source.isDisc ? std::nullopt : readTimes(source.path, false);
  double longest = 0;
  bool allStated = true;
  for (const Pair& pair : pairs) {
    longest = std::max(longest, pair.result->stated);
    const auto stated = statedLength(times, pair);
    if (!stated) allStated = false;
    if (stated && !near(pair.result->stated, *stated))
      return lengthFault(pair, pair.result->stated, *stated);
  }
  if (allStated) return "";
  if (!isLengthKnown(source)) return "the length of the source is not known";
  const double whole = static_cast<double>(source.playTimeMs) / 1000;
  if (near(longest, whole)) return "";
  return "the result lasts " + inSeconds(longest) + ", the source " + inSeconds(whole);
}

std::string countFault(const Pair& pair, const StreamCount& source) {
  const double result = pair.result->stated;
  if (near(result, source.span) || near(result, source.sum)) return "";
  return lengthFault(pair, result, source.sum);
}

std::string countedFault(const std::vector<Pair>& pairs, const PacketCount& count) {
  for (const Pair& pair : pairs) {
    const StreamCount* stream = count.find(pair.kind, pair.sourceTrack);
    if (stream == nullptr) return std::string("the source has no such ") + pair.name;
    std::string fault = countFault(pair, *stream);
    if (!fault.empty()) return fault;
  }
  return "";
}

// A second opinion where the stated lengths do not fit; @p fault is the first one.
std::string recount(const std::vector<Pair>& pairs, const SourceFacts& source,
                    const std::string& fault, const std::function<bool()>& goOn) {
  const PacketCount count = countPackets(source.path, goOn);
  if (!count.complete || count.samplesBeyond) return fault + " (the source is incomplete)";
  const bool whole = examineShape(source.path).completeness == Completeness::Whole;
  if (count.lengthStated && !whole) return fault;
  return countedFault(pairs, count);
}

// The files of a disc's title one after the other. A stream need not be in all of them.
std::string recountTitle(const std::vector<Pair>& pairs, const SourceFacts& source,
                         const std::string& fault, const std::function<bool()>& goOn) {
  if (source.titleFiles.empty()) return fault;
  std::vector<StreamCount> totals(pairs.size());
  for (const std::string& file : source.titleFiles) {
    const PacketCount count = countPackets(file, goOn);
    if (!count.complete) return fault + " (the source is incomplete)";
    for (size_t i = 0; i < pairs.size(); ++i) {
      const StreamCount* stream = count.find(pairs[i].kind, pairs[i].sourceTrack);
      if (stream == nullptr) continue;
      totals[i].span += stream->span;
      totals[i].sum += stream->sum;
    }
  }
  for (size_t i = 0; i < pairs.size(); ++i) {
    std::string counted = countFault(pairs[i], totals[i]);
    if (!counted.empty()) return counted;
  }
  return "";
}

std::string lengthsFault(const std::vector<Pair>& pairs, const SourceFacts& source,
                         const std::function<bool()>& goOn) {
  std::string fault = statedFault(pairs, source);
  if (fault.empty()) return "";
  if (source.isDisc) return recountTitle(pairs, source, fault, goOn);
  return recount(pairs, source, fault, goOn);
}

std::string pictureFault(const StreamTimes& picture) {
  if (picture.width <= 0 || picture.height <= 0) return "the picture of the result has no size";
  if (picture.turned) return "the result is still rotated";
  return "";
}

}  // namespace

SourceFacts factsOf(const std::string& path, const KxMediaInfo& info) {
  return {path,
          info.m_mediaType != 0 || isDiscImage(path),
          info.m_playTimeMs,
          info.m_playTimeSource,
          {}};
}

std::string sourceFault(const SourceFacts& source) {
  if (source.isDisc) return "";
  const ContainerShape shape = examineShape(source.path);
  if (shape.completeness != Completeness::CutOff) return "";
  return "the source is cut off: " + std::to_string(shape.missing) + " bytes are missing";
}

std::string resultFault(const std::string& result, const SourceFacts& source,
                        const ExpectedResult& expected, const std::function<bool()>& goOn) {
  const auto times = readTimes(result, true);
  if (!times) return "the result cannot be opened";
  std::vector<Pair> pairs;
  if (expected.videoTrack >= 0) {
    const StreamTimes* picture = times->find(Kind::Video, 0);
    if (picture == nullptr || picture->isEmpty) return "the result has no picture";
    std::string fault = pictureFault(*picture);
    if (!fault.empty()) return fault;
    pairs.push_back({Kind::Video, expected.videoTrack, "picture", picture});
  }
  if (expected.audioTrack >= 0) {
    const StreamTimes* sound = times->find(Kind::Audio, 0);
    if (sound == nullptr || sound->isEmpty) return "the result has no sound";
    pairs.push_back({Kind::Audio, expected.audioTrack, "sound", sound});
  }
  return lengthsFault(pairs, source, goOn);
}

}  // namespace runner
