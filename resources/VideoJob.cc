#include "resources/VideoJob.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "engines/FilterChain.h"
#include "resources/AudioJob.h"
#include "resources/RunnerLog.h"
#include "resources/SubtitleSearch.h"

namespace runner {
namespace {

bool wantsAutomaticSubtitles() {
  const std::string file = miscSystemPath("/etc/config/medialibrary.conf");
  return MyUtil_GetKeyInt("TRANSCODESVR", "SUBTITLE", 0, file.c_str()) != 0;
}

bool isRegularFile(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

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
  append(coverArtCorrection(info, job.vid));
  append(engines::correctedVideoFilter(param, info));
  return param;
}

bool VideoJob::run() {
  const auto stamp = stampOf(m_run.job().src);
  if (!stamp) return m_run.fail(std::string("the source cannot be read: ") + strerror(errno));
  m_source.stamp = *stamp;
  return openFolders() && probe() && chooseSubtitle() && convertSelected();
}

bool VideoJob::openFolders() {
  const std::string& base = m_run.source().folder;
  const auto refuse = [&](const std::string& path) {
    return m_run.fail("cannot create the folder " + path + ": " + strerror(errno));
  };
  if (!OutputFolder::make(base, kThumbFolder).valid()) {
    KX_RUNNER_LOG("can not create transcode foloder %s\n", (base + kThumbFolder).c_str());
    return refuse(base + kThumbFolder);
  }
  for (const auto& [folder, below] :
       {std::pair{&m_links, kLinkFolder}, std::pair{&m_visible, kVisibleFolder}}) {
    *folder = OutputFolder::make(base, below);
    if (folder->valid()) continue;
    KX_RUNNER_LOG_LEVEL(2, "can not create transcode foloder %s\n", (base + below).c_str());
    return refuse(base + below);
  }
  m_temp = OutputFolder::make(base, kTempFolder);
  if (m_temp.valid()) return true;
  KX_RUNNER_LOG("can not create transcode temp foloder %s\n", (base + kTempFolder).c_str());
  return refuse(base + kTempFolder);
}

bool VideoJob::probe() {
  const std::string& path = m_run.job().src;
  if (m_source.info.init(path) != 0) {
    KX_RUNNER_LOG("mediainfo init fail");
    if (!isDiscImage(path) || !probeDiscImage())
      return m_run.fail("the source is not a media file that can be read");
  }
  m_source.facts = factsOf(path, m_source.info);
  const std::string fault = sourceFault(m_source.facts);
  if (!fault.empty()) return m_run.fail(fault);
  const KxDBTaskParam& job = m_run.job();
  m_expected.videoTrack = job.vid;
  m_expected.audioTrack = m_source.info.getAudioTrack(job.aid).m_isEmpty ? -1 : job.aid;
  return true;
}

// An image can only be probed where it is mounted, and a transcoder does that.
bool VideoJob::probeDiscImage() {
  TranscodeParam param;
  param.m_inFile = m_run.job().src;
  param.m_outFile = m_temp.pathOf("probe.mp4");
  param.m_formatId = KX_FORMAT_MP4;
  KxTranscoder transcoder;
  const Cleanup cleanup([&] { return transcoder.getWorkFolder(); });
  if (transcoder.init(param) != 0) return false;
  m_source.info = transcoder.getMediaInfo();
  return true;
}

bool VideoJob::chooseSubtitle() {
  const KxDBTaskParam& job = m_run.job();
  m_subtitle = job.subtitle;
  if (!m_subtitle.empty())
    return isRegularFile(m_subtitle) || m_run.fail("the subtitle is no file: " + m_subtitle);
  if (job.sid >= 0 || !wantsAutomaticSubtitles()) return true;
  m_subtitle = findVideoSubtitle(m_run.source().folder, m_run.source().name);
  if (!m_subtitle.empty()) KX_RUNNER_LOG("auto search subtitle => %s\n", m_subtitle.c_str());
  return true;
}

bool VideoJob::convertSelected() {
  for (int row = 0; gTransConfig[row].key != 0; ++row) {
    const TransConfigEntry& config = gTransConfig[row];
    if ((m_run.job().jobFlag >> row & 1) == 0) {
      KX_RUNNER_LOG("skip config idx=%d, configName=%s\n", row, config.name.c_str());
      continue;
    }
    if (m_run.mustEnd()) return m_run.fail("was stopped");
    m_run.showProgress(0);
    if (!convertRow(config)) return false;
    m_run.showProgress(100);
  }
  return true;
}

bool VideoJob::convertRow(const TransConfigEntry& config) {
  if (config.formatId == KX_FORMAT_AUDIO) return AudioJob(m_run, m_source, m_temp).run(config);
  return convertVideo(config);
}

bool VideoJob::convertVideo(const TransConfigEntry& config) {
  const auto refuse = [&](const std::string& fault) {
    return m_run.fail(config.name + ": " + fault);
  };
  const KxDBTaskParam& job = m_run.job();
  if (m_source.info.getVideoTrack(job.vid).m_isEmpty)
    return refuse("the source has no video track " + std::to_string(job.vid));
  VideoPlacement placement(m_run.source(), m_visible, m_links, config.name,
                           askedRotation(job.rotation));
  const std::string obstacle = placement.obstacle();
  if (!obstacle.empty()) return refuse(obstacle);
  placement.noteStaleRotations();
  const auto isUsable = [this](const std::string& path) {
    return faultOfResult(m_run, m_source, m_expected, path).empty();
  };
  if (placement.reuse(m_source.stamp, isUsable)) return true;
  TemporaryFile file(m_temp, ".mp4");
  std::string fault = encode(config, file);
  if (fault.empty()) fault = faultOfSourceNow(m_run, m_source);
  if (fault.empty()) fault = placement.put(file);
  return fault.empty() || refuse(fault);
}

std::string VideoJob::encode(const TransConfigEntry& config, TemporaryFile& file) {
  TranscodeParam param = videoParam(m_run.job(), config, m_source.info, m_subtitle);
  param.m_outFile = file.path();
  KxTranscoder transcoder;
  const Cleanup cleanup([&] { return transcoder.getWorkFolder(); });
  if (transcoder.init(param) != 0) {
    KX_RUNNER_LOG_LEVEL(2, "transcoder for %s init fail\n", m_run.job().src.c_str());
    return "the transcoder could not be set up";
  }
  const KxStream video = m_source.info.getVideoTrack(m_run.job().vid);
  const KxRegInfo info = registrationInfo(m_run, video.m_width, video.m_height);
  return tryResources(m_run, info,
                      [&](KxResource2& resource) { return encodeOn(resource, transcoder, file); });
}

Attempt VideoJob::encodeOn(KxResource2& resource, KxTranscoder& transcoder, TemporaryFile& file) {
  file.clear();
  m_run.showProgress(0);
  std::string fault =
      runChild(m_run, {"encoder", [&] { return transcoder.transcode(resource, true); },
                       [&] { return transcoder.getProgress(); }, transcoder.getProgressLogPath(),
                       file.path()});
  if (fault.empty() && transcoder.needsStripMetadata()) fault = remux(transcoder, file);
  if (fault.empty()) fault = faultOfResult(m_run, m_source, m_expected, file.path());
  return {fault.empty(), fault};
}

std::string VideoJob::remux(KxTranscoder& transcoder, TemporaryFile& file) {
  std::string fault =
      runChild(m_run, {"remux", [&] { return transcoder.workaroundStripMetadata(file.path()); },
                       nullptr, transcoder.getProgressLogPath(), file.remuxPath()});
  if (!fault.empty()) return fault;
  return file.takeRemux() ? "" : "the remuxed result cannot be renamed";
}

}  // namespace runner
