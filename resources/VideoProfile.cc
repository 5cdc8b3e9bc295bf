#include "resources/VideoProfile.h"

#include <algorithm>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "engines/FilterChain.h"
#include "engines/HostFacts.h"
#include "engines/SegmentMerge.h"
#include "resources/EncoderLog.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

// A program that reads the whole source and shows nothing of it gets this many times as long
// as one that reports.
constexpr int kSilentSteps = 6;

int chooseAudioCodec(const TransConfigEntry& config, const KxStream& audio) {
  if (!audio.m_isEmpty && audio.m_codecId == KX_CODEC_AAC) return KX_CODEC_AAC;
  return MyUtil_hasAACSupport() != 0 ? config.aCodecId : static_cast<int>(KX_CODEC_MP3);
}

// The encoder counts cover art among the video streams, so a cover in front of the wanted
// track would be taken in its place.
std::vector<std::string> coverArtCorrection(const KxMediaInfo& info, int track) {
  int encoderTrack = 0;
  int wanted = track;
  for (const KxStream& stream : info.m_streams) {
    if (stream.m_type != KX_STREAM_VIDEO) continue;
    if (!stream.m_isEmpty && wanted-- == 0) break;
    ++encoderTrack;
  }
  if (wanted >= 0 || encoderTrack == track) return {};
  return {"-map", "-0:v:" + std::to_string(track), "-map", "0:v:" + std::to_string(encoderTrack)};
}

void copyProfile(const TransConfigEntry& config, TranscodeParam& param) {
  param.m_formatId = config.formatId;
  param.m_width = config.width;
  param.m_height = config.height;
  param.m_vCodecId = config.vCodecId;
  param.m_vProfile = config.vProfile;
  param.m_aBitrate = config.aBitrate;
  param.m_aChannel = config.aChannel;
  param.m_aSampleRate = config.aSampleRate;
}

void copyJob(const KxDBTaskParam& job, TranscodeParam& param) {
  param.m_inFile = job.src;
  param.m_vid = job.vid;
  param.m_sid = job.sid;
  param.m_subSize = job.subSize;
  param.m_subSeek = job.subSeek;
  param.m_subColor = job.subColor;
  // Not set means "as the source says": 0 would keep the picture from being turned upright.
  param.m_rotate = askedRotation(job.rotation) != 0 ? job.rotation : -1;
}

}  // namespace

TranscodeParam videoParam(const KxDBTaskParam& job, const TransConfigEntry& config,
                          KxMediaInfo& info, const std::string& subtitle) {
  TranscodeParam param;
  copyProfile(config, param);
  copyJob(job, param);
  param.m_subtitle = subtitle;
  const KxStream audio = info.getAudioTrack(job.aid);
  param.m_aid = audio.m_isEmpty ? -1 : job.aid;
  param.m_aCodecId = chooseAudioCodec(config, audio);
  const auto append = [&param](const std::vector<std::string>& arguments) {
    param.m_extraCmds.insert(param.m_extraCmds.end(), arguments.begin(), arguments.end());
  };
  append(sourceArguments(info));
  append(soundArguments(job.src, info, job.aid));
  append(coverArtCorrection(info, job.vid));
  append(engines::correctedVideoFilter(param, info));
  return param;
}

KxRegInfo videoRegistration(const VideoContext& video) {
  const KxStream stream = video.source.info.getVideoTrack(video.run.job().vid);
  return registrationInfo(video.run, stream.m_width, stream.m_height);
}

VideoProfile::VideoProfile(const VideoContext& video, const TransConfigEntry& config)
    : m_video(video), m_config(config),
      m_placement(video.run.source(), video.visible, video.links, config.name,
                  askedRotation(video.run.job().rotation)),
      m_file(video.temp, ".mp4"), m_cleanup([this] { return m_transcoder.getWorkFolder(); }) {
  m_transcoder.setChildWaiter([this](int pid) {
    const ChildEnd end = followChild(m_video.run, pid, {}, kSilentSteps * stallLimit());
    return end.ok() ? 0 : std::max(end.result, 1);
  });
}

std::string VideoProfile::obstacle() const {
  const int track = m_video.run.job().vid;
  if (m_video.source.info.getVideoTrack(track).m_isEmpty)
    return missingTrack("video", track, m_video.source.info.getVideoTrackCount());
  return m_placement.obstacle();
}

bool VideoProfile::isInPlace() {
  m_placement.noteStaleRotations();
  const bool isThere = m_placement.reuse(m_video.source.stamp, [this](const std::string& path) {
    return faultOfResult(m_video.run, m_video.source, m_video.expected, path).empty();
  });
  const KxDBTaskParam& job = m_video.run.job();
  // Its name and time do not tell what was drawn into it.
  if (isThere && (!job.subtitle.empty() || job.sid >= 0))
    m_video.run.remark(m_config.name + " was there already, with or without this subtitle");
  return isThere;
}

std::string VideoProfile::open() {
  const KxDBTaskParam& job = m_video.run.job();
  TranscodeParam param = videoParam(job, m_config, m_video.source.info, m_video.subtitle);
  param.m_outFile = m_file.path();
  if (m_transcoder.init(param) == 0) return "";
  KX_RUNNER_LOG_LEVEL(2, "transcoder for %s init fail\n", job.src.c_str());
  const std::string complaint = complaintOf(m_transcoder.getProgressLogPath());
  return complaint.empty() ? "the transcoder could not be set up" : complaint;
}

std::string VideoProfile::finish() {
  const std::string fault = m_transcoder.needsStripMetadata() ? stripRotation() : "";
  return fault.empty() ? check() : fault;
}

std::string VideoProfile::finishJoined() {
  const std::string fault = m_transcoder.needsStripMetadata() ? stripRotation() : putIndexInFront();
  return fault.empty() ? check() : fault;
}

std::string VideoProfile::check() {
  return faultOfResult(m_video.run, m_video.source, m_video.expected, m_file.path());
}

std::string VideoProfile::stripRotation() {
  return remux([this] { return m_transcoder.workaroundStripMetadata(m_file.path()); });
}

std::string VideoProfile::putIndexInFront() {
  const auto service = engines::mediaService();
  if (!service) return "there is no encoder";
  return remux([&] {
    return miscLaunchCmdNoWait(engines::indexInFrontCommand(service->ffmpegPath, m_file.path(),
                                                            m_video.run.job().src,
                                                            m_file.remuxPath()),
                               m_transcoder.getProgressLogPath());
  });
}

std::string VideoProfile::remux(const std::function<int()>& start) {
  std::string fault =
      runChild(m_video.run,
               {"remux", start, nullptr, m_transcoder.getProgressLogPath(), m_file.remuxPath()});
  if (!fault.empty()) return fault;
  return m_file.takeRemux() ? "" : "the remuxed result cannot be renamed";
}

std::string VideoProfile::put() {
  const std::string fault = faultOfSourceNow(m_video.run, m_video.source);
  return fault.empty() ? m_placement.put(m_file) : fault;
}

}  // namespace runner
