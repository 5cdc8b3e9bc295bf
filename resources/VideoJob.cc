#include "resources/VideoJob.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "engines/ExtractedSubtitle.h"
#include "probe/DiscCheck.h"
#include "probe/DiscImage.h"
#include "resources/AudioJob.h"
#include "resources/FanOutJob.h"
#include "resources/RunnerLog.h"
#include "resources/SegmentJob.h"
#include "resources/SubtitleSearch.h"
#include "resources/SubtitleText.h"

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

bool isFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string unreadableSource(const std::string& path) {
  if (kxprobe::readImageHead(path).isImage())
    return "the source is a disc image, whose name has to end in .iso";
  const std::string fault = isFolder(path) ? kxprobe::discFault(path) : "";
  return fault.empty() ? "the source is not a media file that can be read" : fault;
}

// @param opened where an image was mounted, else the source itself
std::string discFault(const std::string& path, const std::string& opened) {
  if (!isDiscImage(path)) return kxprobe::discFault(path);
  const bool isMounted = opened != path;
  std::string fault = isMounted ? kxprobe::discFault(opened) : "the disc image cannot be mounted";
  const std::string cause = fault.empty() ? "" : kxprobe::imageFault(path);
  if (cause.empty()) return fault;
  return isMounted ? cause + ": " + fault : cause;
}

bool isLater(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// What an earlier run extracted serves again, but not for another version of the source. Nor
// does what somebody else put there, where users may write.
void dropUselessExtraction(const std::string& source, int track) {
  const std::string extracted = engines::extractedSubtitlePath(source, track);
  struct stat from;
  struct stat made;
  if (stat(source.c_str(), &from) != 0 || lstat(extracted.c_str(), &made) != 0) return;
  if (isLater(from.st_ctim, made.st_mtim) || !isSubtitle(extracted)) unlink(extracted.c_str());
}

}  // namespace

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
  const bool isImage = isDiscImage(path);
  if (m_source.info.init(path) != 0) {
    KX_RUNNER_LOG("mediainfo init fail");
    if (m_source.stamp.size == 0 && isRegularFile(path)) return m_run.fail("the source is empty");
    // An image can only be probed where it is mounted.
    if (!isImage) return m_run.fail(unreadableSource(path));
  }
  const bool isDisc = isImage || m_source.info.m_mediaType != 0;
  if (isDisc && !openDisc()) return false;
  m_source.facts = factsOf(path, m_source.info);
  m_source.facts.titleFiles = m_disc.titleFiles();
  const std::string fault = sourceFault(m_source.facts);
  if (!fault.empty()) return m_run.fail(fault);
  return chooseTracks();
}

// A source without sound gives silent videos, but a track that is asked for has to be there.
bool VideoJob::chooseTracks() {
  const KxDBTaskParam& job = m_run.job();
  m_expected.videoTrack = job.vid;
  const bool isThere = !m_source.info.getAudioTrack(job.aid).m_isEmpty;
  m_expected.audioTrack = isThere ? job.aid : -1;
  const int count = m_source.info.getAudioTrackCount();
  return isThere || count == 0 || m_run.fail(missingTrack("audio", job.aid, count));
}

bool VideoJob::openDisc() {
  const std::string& path = m_run.job().src;
  const std::string imageFault =
      isDiscImage(path) ? kxprobe::imageFault(path, kxprobe::kImagePadding) : "";
  if (!imageFault.empty()) return m_run.fail(imageFault);
  m_disc.attach(path);
  // Asked first: a file that ends too early looks shorter to those who read it after others.
  const std::string fault = discFault(path, m_disc.hostPath());
  const bool isProbed = fault.empty() && m_disc.probe(m_source.info) == 0;
  if (m_run.mustEnd()) return m_run.fail("was stopped");
  if (!fault.empty()) return m_run.fail(fault);
  if (!isProbed) return m_run.fail("the main title of the disc cannot be read");
  return !m_disc.encoderInput().empty() ||
         m_run.fail("the path of a DVD must not hold a \"|\": " + path);
}

bool VideoJob::chooseSubtitle() {
  const KxDBTaskParam& job = m_run.job();
  if (job.sid >= 0) {
    if (m_source.facts.isDisc)
      return m_run.fail("the subtitles of a disc are stored as pictures and hold no text");
    dropUselessExtraction(job.src, job.sid);
  }
  m_subtitle = job.subtitle;
  if (!m_subtitle.empty()) {
    if (!isRegularFile(m_subtitle)) return m_run.fail("the subtitle is no file: " + m_subtitle);
    return convertSubtitle();
  }
  if (job.sid >= 0 || !wantsAutomaticSubtitles()) return true;
  m_subtitle = findVideoSubtitle(m_run.source().folder, m_run.source().name);
  if (!m_subtitle.empty()) KX_RUNNER_LOG("auto search subtitle => %s\n", m_subtitle.c_str());
  return m_subtitle.empty() || convertSubtitle();
}

// The renderer only understands UTF-8, and times with fractions.
bool VideoJob::convertSubtitle() {
  const SubtitleText text = readSubtitle(m_subtitle);
  if (!text.fault.empty()) return m_run.fail(text.fault + ": " + m_subtitle);
  const std::string original = m_subtitle;
  if (text.isChanged) {
    m_subtitleText.emplace(m_temp, ".srt");
    m_subtitle = m_subtitleText->path();
    if (!writeText(m_subtitle, text.utf8))
      return m_run.fail("the subtitle could not be converted: " + original);
  }
  return isSubtitle(m_subtitle) || m_run.fail("the subtitle is not understood: " + original);
}

bool VideoJob::convertSelected() {
  uint64_t finished = SegmentJob(context()).run();
  finished |= FanOutJob(context()).run();
  for (int row = 0; gTransConfig[row].key != 0; ++row) {
    const TransConfigEntry& config = gTransConfig[row];
    if ((m_run.job().jobFlag >> row & 1) == 0) {
      KX_RUNNER_LOG("skip config idx=%d, configName=%s\n", row, config.name.c_str());
      continue;
    }
    if ((finished >> row & 1) != 0) continue;
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
  VideoProfile profile(context(), config);
  std::string fault = profile.obstacle();
  if (fault.empty()) {
    if (profile.isInPlace()) return true;
    fault = profile.open();
  }
  if (fault.empty()) {
    fault = tryResources(m_run, videoRegistration(context()),
                         [&](KxResource2& resource) { return encodeOn(resource, profile); });
  }
  if (fault.empty()) fault = profile.put();
  return fault.empty() || m_run.fail(config.name + ": " + fault);
}

Attempt VideoJob::encodeOn(KxResource2& resource, VideoProfile& profile) {
  const bool isCpu = resource.resType == RES2_SW_CPU;
  if (!isCpu && isPackedSound(m_source.info.getAudioTrack(m_expected.audioTrack)))
    return {false, "only the CPU's encoder reads the sound of this source"};
  KxTranscoder& transcoder = profile.transcoder();
  profile.file().clear();
  m_run.showProgress(0);
  std::string fault =
      runChild(m_run, {"encoder", [&] { return transcoder.transcode(resource, true); },
                       [&] { return transcoder.getProgress(); }, transcoder.getProgressLogPath(),
                       profile.file().path()});
  if (fault.empty()) fault = profile.finish();
  return {fault.empty(), fault};
}

VideoContext VideoJob::context() {
  return {m_run, m_source, m_expected, m_visible, m_links, m_temp, m_subtitle};
}

}  // namespace runner
