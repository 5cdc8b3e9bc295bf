#include "resources/AudioJob.h"

#include <cerrno>
#include <cstring>

#include "resources/RunnerLog.h"

namespace runner {
namespace {

// Numbers of the picture formats that an MP3 file may carry.
constexpr int kJpeg = 8;
constexpr int kPng = 62;

template <typename Words>
void append(Words& words, const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
}

// Cover art is among the video streams, but it is no video track.
std::vector<std::string> coverArguments(const KxMediaInfo& info) {
  std::vector<std::string> arguments;
  int index = 0;
  for (const KxStream& stream : info.m_streams) {
    if (stream.m_type != KX_STREAM_VIDEO) continue;
    const bool carried = stream.m_codecId == kJpeg || stream.m_codecId == kPng;
    if (stream.m_isEmpty && carried) append(arguments, {"-map", "0:v:" + std::to_string(index)});
    ++index;
  }
  if (!arguments.empty()) append(arguments, {"-c:v", "copy"});
  return arguments;
}

// Ogg files keep their tags with the sound, where MP3 has no place for them.
bool hasTagsOnStream(const std::string& path) {
  return path.ends_with(".ogg") || path.ends_with(".oga") || path.ends_with(".opus");
}

std::vector<std::string> tagArguments(const std::string& path, int track) {
  if (!hasTagsOnStream(path)) return {};
  return {"-map_metadata", "0", "-map_metadata:g", "0:s:a:" + std::to_string(track)};
}

}  // namespace

MusicTranscodeParam audioParam(const KxDBTaskParam& job, const TransConfigEntry& config) {
  MusicTranscodeParam param;
  param.m_inFile = job.src;
  param.m_formatId = config.formatId;
  param.m_aid = job.aid;
  param.m_aCodecId = config.aCodecId;
  param.m_aBitrate = config.aBitrate;
  param.m_aChannel = config.aChannel;
  param.m_aSampleRate = config.aSampleRate;
  return param;
}

bool AudioJob::run(const TransConfigEntry& config) {
  const auto refuse = [&](const std::string& fault) {
    return m_run.fail(config.name + ": " + fault);
  };
  const int track = m_run.job().aid;
  if (m_source.info.getAudioTrack(track).m_isEmpty)
    return refuse(missingTrack("audio", track, m_source.info.getAudioTrackCount()));
  m_expected.audioTrack = track;
  const std::string& base = m_run.source().folder;
  const OutputFolder folder = OutputFolder::make(base, kAudioFolder);
  if (!folder.valid()) {
    const std::string path = base + kAudioFolder;
    const std::string reason = strerror(errno);
    KX_RUNNER_LOG("can not create music transcode foloder %s\n", path.c_str());
    return refuse("cannot create the folder " + path + ": " + reason);
  }
  const std::string fault = convert(config, AudioPlacement(m_run.source(), folder));
  return fault.empty() || refuse(fault);
}

std::string AudioJob::convert(const TransConfigEntry& config, const AudioPlacement& placement) {
  std::string fault = placement.obstacle();
  if (!fault.empty()) return fault;
  const auto isUsable = [this](const std::string& path) {
    return faultOfResult(m_run, m_source, m_expected, path).empty();
  };
  if (placement.reuse(m_source.stamp, isUsable)) return "";
  TemporaryFile file(m_temp, ".mp3");
  fault = encode(config, file);
  if (fault.empty()) fault = faultOfSourceNow(m_run, m_source);
  return fault.empty() ? placement.put(file) : fault;
}

std::string AudioJob::encode(const TransConfigEntry& config, TemporaryFile& file) {
  MusicTranscodeParam param = audioParam(m_run.job(), config);
  param.m_outFile = file.path();
  append(param.m_extraCmds, sourceArguments(m_source.info));
  append(param.m_extraCmds, soundArguments(param.m_inFile, m_source.info, param.m_aid));
  append(param.m_extraCmds, coverArguments(m_source.info));
  append(param.m_extraCmds, tagArguments(param.m_inFile, param.m_aid));
  KxMusicTranscoder transcoder;
  const Cleanup cleanup([&] { return transcoder.getProgressLogPath(); });
  if (transcoder.init(param) != 0) {
    KX_RUNNER_LOG("musicTranscoder for %s init fail\n", m_run.job().src.c_str());
    return "the transcoder could not be set up";
  }
  const KxStream video = m_source.info.getVideoTrack(m_run.job().vid);
  const KxRegInfo info = registrationInfo(m_run, video.m_width, video.m_height);
  return tryResources(m_run, info,
                      [&](KxResource2& resource) { return encodeOn(resource, transcoder, file); });
}

Attempt AudioJob::encodeOn(KxResource2& resource, KxMusicTranscoder& transcoder,
                           TemporaryFile& file) {
  file.clear();
  m_run.showProgress(0);
  std::string fault =
      runChild(m_run, {"encoder", [&] { return transcoder.transcode(resource, true); },
                       [&] { return transcoder.getProgress(); }, transcoder.getProgressLogPath(),
                       file.path()});
  if (fault.empty()) fault = faultOfResult(m_run, m_source, m_expected, file.path());
  return {fault.empty(), fault};
}

}  // namespace runner
