#include "engines/SegmentMerge.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "engines/HostFacts.h"
#include "frame/Log.h"
#include "frame/UniqueFd.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace engines {
namespace {

constexpr const char* kFunction = "doMerge";

struct MergeFormat {
  int formatId;
  const char* name;
};

// Every other container is left to the name of the result.
constexpr std::array<MergeFormat, 4> kMergeFormats{{
    {KX_FORMAT_AVI, "avi"},
    {KX_FORMAT_ASF, "asf"},
    {KX_FORMAT_MATROSKA, "matroska"},
    {KX_FORMAT_FLV, "flv"},
}};

bool writeLine(int list, const std::string& line) {
  return write(list, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

}  // namespace

bool writeMergeList(const std::string& path, const std::vector<Seg_t>& segments) {
  const UniqueFd list(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!list) {
    KX_LOG_AS(kFunction, "can not create merge list -> %s\n", path.c_str());
    return false;
  }
  for (const Seg_t& segment : segments) {
    const char* result = segment.segOut.c_str();
    if (!exists(segment.segOut)) {
      KX_LOG_AS(kFunction, "segOut file %s do not exist, skip it\n", result);
      continue;
    }
    if (!writeLine(list.get(), "file \"" + segment.segOut + "\"\n")) {
      KX_LOG_AS(kFunction, "can not write %s to mergeList %s\n", result, path.c_str());
      KX_LOG_AS(kFunction, "some error occur, can not merge segment\n");
      return false;
    }
    KX_LOG_AS(kFunction, "write %s to merge list\n", result);
  }
  return true;
}

std::vector<std::string> mergeCommand(const std::string& ffmpeg, const std::string& list,
                                      const std::string& sideAudio, const TranscodeParam& param,
                                      std::vector<EngineNote>& notes) {
  std::vector<std::string> argv = {ffmpeg,    "-y",      "-f",   "concat", "-i",   list,
                                   "-i",      sideAudio, "-map", "0:v:0?", "-c:v", "copy",
                                   "-strict", "-2",      "-map", "1:a:0?", "-c:a", "aac"};
  const auto add = [&](const char* option, const std::string& value) {
    argv.insert(argv.end(), {option, value});
  };
  if (param.m_aChannel > 0) add("-ac", std::to_string(param.m_aChannel));
  // The bit rate on purpose: the service's ffmpeg drops a sampling rate that is none.
  if (param.m_aBitrate > 0) add("-ar", std::to_string(param.m_aBitrate));
  const auto* format =
      std::find_if(kMergeFormats.begin(), kMergeFormats.end(),
                   [&](const MergeFormat& known) { return known.formatId == param.m_formatId; });
  if (format != kMergeFormats.end()) {
    add("-f", format->name);
  } else {
    notes.push_back({kFunction, "goto default format\n"});
  }
  argv.push_back(param.m_outFile);
  return argv;
}

std::vector<std::string> indexInFrontCommand(const std::string& ffmpeg, const std::string& joined,
                                             const std::string& source, const std::string& output) {
  return {ffmpeg,      "-y",         "-i",   joined,          "-i",  source,          "-map",
          "0",         "-c",         "copy", "-map_metadata", "1",   "-map_chapters", "1",
          "-movflags", "+faststart", "-f",   "mp4",           output};
}

}  // namespace engines
