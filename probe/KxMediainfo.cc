#include "KxMediainfo.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "frame/Log.h"
#include "frame/StopSignal.h"
#include "probe/CodecNumbers.h"
#include "probe/FactsCache.h"
#include "probe/Folders.h"
#include "probe/FormatContext.h"
#include "probe/Rotation.h"

static constexpr const char* kLogSource = "KxMediainfo";

using kxprobe::ContainerFacts;
using kxprobe::FormatContext;
using kxprobe::PlayTime;
using kxprobe::StreamFacts;
using kxprobe::StreamKind;

namespace {

constexpr std::chrono::seconds kProbeLimit{30};

enum MediaType : int32_t { kPlainFile = 0, kDvdFolder = 1, kBluRayFolder = 2 };

struct FormatName {
  std::string_view demuxer;
  KxFormatId_e id;
};

constexpr std::array<FormatName, 8> kFormatNames = {{
    {"avi", KX_FORMAT_AVI},
    {"asf", KX_FORMAT_ASF},
    {"mpeg", KX_FORMAT_MPEG},
    {"mov,mp4,m4a,3gp,3g2,mj2", KX_FORMAT_MP4},
    {"mpegts", KX_FORMAT_MPEGTS},
    {"matroska,webm", KX_FORMAT_MATROSKA},
    {"flv", KX_FORMAT_FLV},
    {"rm", KX_FORMAT_RM},
}};

KxFormatId_e formatIdOf(std::string_view demuxer) {
  const auto found =
      std::find_if(kFormatNames.begin(), kFormatNames.end(),
                   [&](const FormatName& entry) { return entry.demuxer == demuxer; });
  return found == kFormatNames.end() ? KX_FORMAT_UNKNOWN : found->id;
}

int32_t toInt32(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, 0, std::numeric_limits<int32_t>::max()));
}

// What a path stands for, and the file that is opened for it.
struct Source {
  int32_t mediaType = kPlainFile;
  std::string file;
  std::vector<std::string> parts;  // of a DVD title
  long titleSize = 0;
};

std::optional<Source> dvdSource(const std::string& index) {
  KxDvd dvd;
  if (dvd.init(index) != 0) return std::nullopt;
  return Source{kDvdFolder, dvd.getSampleVideoPath(), dvd.getTitleParts(), dvd.getSampleDvd().size};
}

std::optional<Source> bluRaySource(const std::string& index) {
  KxBd bd;
  if (bd.init(index) != 0) return std::nullopt;
  return Source{kBluRayFolder, bd.getSampleVideoPath(), {}, 0};
}

Source chooseSource(const std::string& path) {
  if (auto source = dvdSource(path)) return *source;
  if (auto source = bluRaySource(path)) return *source;
  if (const auto index = kxprobe::findDiscIndex(path, kxprobe::kDvd))
    if (auto source = dvdSource(*index)) return *source;
  if (const auto index = kxprobe::findDiscIndex(path, kxprobe::kBluRay))
    if (auto source = bluRaySource(*index)) return *source;
  return Source{kPlainFile, path, {}, 0};
}

// Play time of the parts of a DVD title after the first; each part is a file of its own.
PlayTime addParts(PlayTime sum, const Source& source,
                  std::chrono::steady_clock::time_point deadline) {
  for (const std::string& part : source.parts) {
    if (part == source.file) continue;
    FormatContext context(deadline);
    if (!context.open(part) || !context.readStreamInfo() || !context.hasStreams()) return {};
    const PlayTime next = context.facts().playTime;
    if (sum.source == KX_PLAYTIME_UNKNOWN || next.source == KX_PLAYTIME_UNKNOWN) return {};
    if (next.source != sum.source) sum.source = KX_PLAYTIME_ESTIMATED;
    sum.ms += next.ms;
  }
  return sum;
}

std::optional<ContainerFacts> readFacts(const Source& source) {
  static constexpr const char* kFunc = "init";
  const char* file = source.file.c_str();
  const auto deadline = std::chrono::steady_clock::now() + kProbeLimit;
  FormatContext context(deadline);
  if (!context.open(source.file)) {
    KX_LOG_AS(kFunc, "avformat_open_input() %s fail\n", file);
    return std::nullopt;
  }
  if (!context.readStreamInfo()) {
    KX_LOG_AS(kFunc, "avformat_find_stream_info() %s fail\n", file);
    return std::nullopt;
  }
  if (!context.hasStreams()) return std::nullopt;
  ContainerFacts facts = context.facts();
  facts.playTime = addParts(facts.playTime, source, deadline);
  return facts;
}

std::optional<ContainerFacts> factsOf(const Source& source) {
  auto stamp = kxprobe::stampOf(source.file);
  if (stamp) stamp->titleSize = source.titleSize;
  auto& cache = kxprobe::FactsCache::instance();
  if (stamp)
    if (auto known = cache.find(*stamp)) return known;
  auto facts = readFacts(source);
  // What a stop has cut short may lack streams.
  if (facts && stamp && !StopSignal::isSet()) cache.store(*stamp, *facts);
  return facts;
}

void logAspect(const StreamFacts& facts) {
  static constexpr const char* kFunc = "init";
  if (!facts.dar.known()) {
    KX_LOG_AS(kFunc, "can not get dar & sar\n");
    return;
  }
  KX_LOG_AS(kFunc, "sar.den=%d, sar.num=%d\n", facts.sar.den, facts.sar.num);
  KX_LOG_AS(kFunc, "dar.den=%d, dar.num=%d\n", facts.dar.den, facts.dar.num);
}

void fillVideo(KxStream& stream, const StreamFacts& facts) {
  stream.m_codecId = kxprobe::toLibraryCodecId(facts.codecId);
  stream.m_rotation = kxprobe::rotationOf(facts);
  stream.m_isMirrored = facts.matrixMirrors;
  stream.m_width = facts.width;
  stream.m_height = facts.height;
  stream.m_frame_num = facts.frameRate.num;
  stream.m_frame_den = facts.frameRate.den;
  logAspect(facts);
  if (!facts.dar.known()) return;
  stream.m_sar_num = facts.sar.num;
  stream.m_sar_den = facts.sar.den;
  stream.m_dar_num = facts.dar.num;
  stream.m_dar_den = facts.dar.den;
}

KxStream toStream(const StreamFacts& facts) {
  KxStream stream;
  stream.m_isEmpty = facts.coverArt;
  stream.m_type = facts.nativeType;
  stream.m_codecId = facts.codecId;
  stream.m_profile = facts.profile;
  stream.m_level = facts.level;
  stream.m_bitrate = toInt32(facts.bitRate);
  stream.m_samplerate = facts.sampleRate;
  stream.m_channels = facts.channels;
  if (facts.kind == StreamKind::Video) fillVideo(stream, facts);
  return stream;
}

int32_t countTracks(const std::vector<KxStream>& streams, KxStreamType_e type) {
  return static_cast<int32_t>(
      std::count_if(streams.begin(), streams.end(), [type](const KxStream& stream) {
        return !stream.m_isEmpty && stream.m_type == type;
      }));
}

KxStream findTrack(const std::vector<KxStream>& streams, KxStreamType_e type, int n,
                   const char* func, const char* word) {
  if (streams.empty()) {
    KX_LOG_AS(func, "m_streams.size() == 0\n");
    return {};
  }
  if (n < 0) {
    KX_LOG_AS(func, "trackNo < 0\n");
    return {};
  }
  int left = n;
  for (const KxStream& stream : streams)
    if (!stream.m_isEmpty && stream.m_type == type && left-- == 0) return stream;
  KX_LOG_AS(func, "can not find track %d %s\n", n, word);
  return {};
}

}  // namespace

int KxMediaInfo::init(std::string path) {
  *this = KxMediaInfo();
  m_inFile = path;
  if (path.empty()) {
    KX_LOG("invalid path %s\n", path.c_str());
    return 1;
  }
  if (!kxprobe::stampOf(path)) {
    KX_LOG("can not stat %s\n", path.c_str());
    return 1;
  }
  const Source source = chooseSource(path);
  m_mediaType = source.mediaType;
  KX_LOG("sample video sample = %s\n", source.file.c_str());
  const auto facts = factsOf(source);
  if (!facts) return 1;

  m_duration = toInt32(facts->durationUs / 1000000);
  m_totalBitrate = toInt32(facts->bitRate);
  m_formatId = formatIdOf(facts->demuxer);
  m_playTimeMs = facts->playTime.ms;
  m_playTimeSource = facts->playTime.source;
  for (const StreamFacts& stream : facts->streams) m_streams.push_back(toStream(stream));
  m_videoCount = countTracks(m_streams, KX_STREAM_VIDEO);
  m_audioCount = countTracks(m_streams, KX_STREAM_AUDIO);
  m_subtitleCount = countTracks(m_streams, KX_STREAM_SUBTITLE);
  return 0;
}

KxStream KxMediaInfo::getVideoTrack(int n) {
  return findTrack(m_streams, KX_STREAM_VIDEO, n, __func__, "video");
}

KxStream KxMediaInfo::getAudioTrack(int n) {
  return findTrack(m_streams, KX_STREAM_AUDIO, n, __func__, "audio");
}

KxStream KxMediaInfo::getSubtitleTrack(int n) {
  return findTrack(m_streams, KX_STREAM_SUBTITLE, n, __func__, "subtitle");
}

void KxMediaInfo::dumpMediaInfo() {
  KX_LOG("m_mediaType=%d\n", m_mediaType);
  KX_LOG("m_duration=%d\n", m_duration);
  KX_LOG("m_formatId=%d\n", m_formatId);
  KX_LOG("m_totalBitrate=%d\n", m_totalBitrate);
  for (size_t i = 0; i < m_streams.size(); ++i) {
    KX_LOG("---- stream %d ----\n", static_cast<int>(i));
    m_streams[i].dumpStreamInfo();
    KX_LOG("-------------------\n");
  }
}

void KxStream::dumpStreamInfo() {
  KX_LOG("m_isEmpty=%s\n", m_isEmpty ? "true" : "false");
  KX_LOG("m_type=%d\n", m_type);
  KX_LOG("m_codecId=%d\n", m_codecId);
  KX_LOG("m_profile=%d\n", m_profile);
  KX_LOG("m_bitrate=%d\n", m_bitrate);
  KX_LOG("m_samplerate=%d\n", m_samplerate);
  KX_LOG("m_channels=%d\n", m_channels);
  KX_LOG("m_rotation=%d\n", m_rotation);
  KX_LOG("m_level=%d\n", m_level);
  KX_LOG("m_width=%d\n", m_width);
  KX_LOG("m_height=%d\n", m_height);
  KX_LOG("m_frame_num=%d\n", m_frame_num);
  KX_LOG("m_frame_den=%d\n", m_frame_den);
}
