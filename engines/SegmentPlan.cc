#include "engines/SegmentPlan.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "engines/HostFacts.h"

namespace engines {
namespace {

constexpr const char* kFunction = "doSegment";
constexpr int kIndexDigits = 5;
constexpr size_t kNameSize = 512;
constexpr int kDefaultChannels = 2;
// Types of machines that are not fast enough for the extra work.
constexpr std::array<int, 6> kRefusedPlatforms = {0, 5, 7, 11, 12, 17};

struct PieceFormat {
  int formatId;
  const char* name;
  const char* extension;
};

constexpr std::array<PieceFormat, 6> kPieceFormats{{
    {KX_FORMAT_AVI, "avi", "avi"},
    {KX_FORMAT_ASF, "asf", "asf"},
    {KX_FORMAT_MP4, "mp4", "mp4"},
    {KX_FORMAT_MPEGTS, "mpegts", "ts"},
    {KX_FORMAT_MATROSKA, "matroska", "mkv"},
    {KX_FORMAT_FLV, "flv", "flv"},
}};
constexpr PieceFormat kDefaultPieceFormat{0, "mp4", "mp4"};

PieceFormat pieceFormat(int formatId) {
  const auto* found =
      std::find_if(kPieceFormats.begin(), kPieceFormats.end(),
                   [&](const PieceFormat& format) { return format.formatId == formatId; });
  return found == kPieceFormats.end() ? kDefaultPieceFormat : *found;
}

// Name of a piece as a printf format of its number.
std::string namePattern(int formatId) {
  return "segment_%0" + std::to_string(kIndexDigits) + "d." + pieceFormat(formatId).extension;
}

std::string pieceName(int formatId, int index) {
  char name[kNameSize];
  snprintf(name, sizeof name, "segment_%0*d.%s", kIndexDigits, index,
           pieceFormat(formatId).extension);
  return name;
}

}  // namespace

bool sourceCanBeCut(const TranscodeParam& param, int duration, const KxStream& video,
                    std::vector<EngineNote>& notes) {
  const auto note = [&](const std::string& text) { notes.push_back({kFunction, text}); };
  const auto refuse = [&](const std::string& text) {
    note(text);
    return false;
  };
  if (video.m_isEmpty) return refuse("can not get video stream info\n");
  if (duration < kSegmentSourceSeconds) {
    return refuse(param.m_inFile + " duration is less than " +
                  std::to_string(kSegmentSourceSeconds) + ", we do not use segment transcode\n");
  }
  if (!param.m_subtitle.empty() || param.m_sid >= 0)
    return refuse("subtitle do not support segment transcode\n");
  switch (video.m_codecId) {
  case KX_CODEC_H264:
    note("h264 support segment transcode\n");
    return true;
  case KX_CODEC_HEVC:
    note("hevc support segment transcode\n");
    return true;
  default:
    return refuse("non-h264 and non-hevc do not support segment transcode\n");
  }
}

bool platformCanCut(const std::string& name, int type, std::vector<EngineNote>& notes) {
  const bool refused = std::ranges::find(kRefusedPlatforms, type) != kRefusedPlatforms.end();
  std::string text = "model: " + name;
  text += refused ? ", do not support" : ", support";
  text += " segment transcode\n";
  notes.push_back({kFunction, text});
  return !refused;
}

std::vector<std::string> sideAudioCommand(const std::string& ffmpeg, const std::string& input,
                                          const TranscodeParam& param, const std::string& output) {
  const std::string videoIndex = std::to_string(param.m_vid);
  std::vector<std::string> argv = {ffmpeg, "-y", "-i", input};
  const auto add = [&](std::initializer_list<std::string> words) {
    argv.insert(argv.end(), words);
  };
  if (param.m_vid > 0) add({"-map", "0:v:" + videoIndex});
  add({"-c:v", "copy", "-strict", "-2"});
  // The video's number on purpose: callers that choose another audio track do not cut.
  if (param.m_aid > 0) add({"-map", "0:a:" + videoIndex});
  const int channels = param.m_aChannel > 0 ? param.m_aChannel : kDefaultChannels;
  add({"-c:a", "aac", "-ac", std::to_string(channels), "-ar", "44100", "-f", "mp4", output});
  return argv;
}

std::vector<std::string> cutCommand(const std::string& ffmpeg, const std::string& input,
                                    int formatId, const std::string& folder) {
  return {ffmpeg,
          "-y",
          "-i",
          input,
          "-c:v",
          "copy",
          "-an",
          "-f",
          "segment",
          "-segment_time",
          std::to_string(kSegmentSeconds),
          "-segment_format",
          pieceFormat(formatId).name,
          folder + namePattern(formatId)};
}

Seg_t segmentAt(const std::string& folder, int formatId, size_t index) {
  const std::string name = pieceName(formatId, static_cast<int>(index));
  return {folder + name, folder + "merge_" + name};
}

std::vector<Seg_t> collectSegments(const std::string& folder, int formatId) {
  std::vector<Seg_t> segments;
  for (;;) {
    Seg_t segment = segmentAt(folder, formatId, segments.size());
    if (!exists(segment.segIn)) return segments;
    segments.push_back(std::move(segment));
  }
}

}  // namespace engines
