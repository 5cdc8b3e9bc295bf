#include "probe/FormatContext.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <vector>

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/display.h>
#include <libavutil/mathematics.h>
}

#include "KxMediainfo.h"
#include "frame/StopSignal.h"
#include "probe/AsfHeader.h"
#include "probe/DiscImage.h"

namespace kxprobe {
namespace {

// How much of a file is read to find its streams.
constexpr ProbeLimits kUsualLimits = {"5000000", "10000000"};
constexpr ProbeLimits kDeepLimits = {"64000000", "120000000"};
constexpr int64_t kMaxAspectTerm = 1024L * 1024;
constexpr int64_t kMeasureLimit = 64LL << 20;  // bytes read to measure a length

// Formats whose files name other files to open, or are programs.
constexpr std::array<std::string_view, 13> kRefusedFormats = {
    "avisynth", "concat", "dash", "hls", "image2",      "imf",
    "rtp",      "rtsp",   "sap",  "sdp", "vapoursynth", "webm_dash_manifest",
    "lavfi"};

// libavformat takes a list of what is allowed only, not of what is refused.
std::string makeFormatWhitelist() {
  std::string list;
  void* position = nullptr;
  while (const AVInputFormat* format = av_demuxer_iterate(&position)) {
    if (std::find(kRefusedFormats.begin(), kRefusedFormats.end(), format->name) !=
        kRefusedFormats.end())
      continue;
    if (!list.empty()) list += ',';
    list += format->name;
  }
  return list;
}

const std::string& formatWhitelist() {
  static const std::string list = makeFormatWhitelist();
  return list;
}

class Options {
 public:
  Options() = default;
  Options(const Options&) = delete;
  Options& operator=(const Options&) = delete;
  ~Options() { av_dict_free(&m_dictionary); }
  void set(const char* key, const char* value) { av_dict_set(&m_dictionary, key, value, 0); }
  AVDictionary** get() { return &m_dictionary; }

 private:
  AVDictionary* m_dictionary = nullptr;
};

struct PacketCloser {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

bool isRegularFile(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

StreamKind kindOf(AVMediaType type) {
  switch (type) {
  case AVMEDIA_TYPE_VIDEO:
    return StreamKind::Video;
  case AVMEDIA_TYPE_AUDIO:
    return StreamKind::Audio;
  case AVMEDIA_TYPE_SUBTITLE:
    return StreamKind::Subtitle;
  default:
    return StreamKind::Other;
  }
}

bool isCoverArt(const AVStream& stream) {
  return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

// A stream that a transcode may carry over and that therefore decides how long it lasts.
bool countsForLength(const AVStream& stream) {
  const AVMediaType type = stream.codecpar->codec_type;
  return (type == AVMEDIA_TYPE_VIDEO && !isCoverArt(stream)) || type == AVMEDIA_TYPE_AUDIO;
}

Fraction knownFraction(AVRational value) {
  const Fraction fraction{value.num, value.den};
  return fraction.known() ? fraction : Fraction{};
}

Fraction frameRate(const AVStream& stream) {
  const Fraction average = knownFraction(stream.avg_frame_rate);
  return average.known() ? average : knownFraction(stream.r_frame_rate);
}

Fraction displayAspect(int width, int height, Fraction sar) {
  if (!sar.known() || width <= 0 || height <= 0) return {};
  Fraction dar;
  av_reduce(&dar.num, &dar.den, int64_t{width} * sar.num, int64_t{height} * sar.den,
            kMaxAspectTerm);
  return dar.known() ? dar : Fraction{};
}

std::optional<std::string> rotateTag(const AVStream& stream) {
  const AVDictionaryEntry* entry = av_dict_get(stream.metadata, "rotate", nullptr, 0);
  if (entry == nullptr || entry->value == nullptr) return std::nullopt;
  return entry->value;
}

using DisplayMatrix = std::array<int32_t, 9>;

std::optional<DisplayMatrix> displayMatrix(const AVStream& stream) {
  size_t size = 0;
  const uint8_t* data = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
  DisplayMatrix matrix;
  if (data == nullptr || size < sizeof matrix) return std::nullopt;
  memcpy(matrix.data(), data, sizeof matrix);
  return matrix;
}

std::optional<int> clockwiseDegrees(const DisplayMatrix& matrix) {
  const double counterClockwise = av_display_rotation_get(matrix.data());
  if (!std::isfinite(counterClockwise)) return std::nullopt;  // a matrix without a rotation
  const int degrees = -static_cast<int>(std::lround(counterClockwise)) % 360;
  return degrees < 0 ? degrees + 360 : degrees;
}

bool isMirroring(const DisplayMatrix& matrix) {
  return int64_t{matrix[0]} * matrix[4] < int64_t{matrix[1]} * matrix[3];
}

// MP4 writes all bits set where a track's length is not known, as in fragmented files.
bool isUnknownMark(int64_t duration) {
  return duration == AV_NOPTS_VALUE || duration <= 0 ||
         duration == std::numeric_limits<uint32_t>::max() ||
         duration == std::numeric_limits<int64_t>::max();
}

int64_t toMicroseconds(int64_t ticks, AVRational timeBase) {
  return av_rescale_q(ticks, timeBase, AVRational{1, AV_TIME_BASE});
}

// First and last moment seen, in microseconds.
class Span {
 public:
  void add(int64_t begin, int64_t end) {
    m_begin = std::min(m_begin, begin);
    m_end = std::max(m_end, end);
  }
  bool empty() const { return m_end < m_begin; }
  int64_t length() const { return m_end - m_begin; }
  int64_t end() const { return m_end; }

 private:
  int64_t m_begin = std::numeric_limits<int64_t>::max();
  int64_t m_end = std::numeric_limits<int64_t>::min();
};

}  // namespace

void FormatContext::Closer::operator()(AVFormatContext* context) const {
  avformat_close_input(&context);
}

FormatContext::FormatContext(std::chrono::steady_clock::time_point deadline)
    : m_deadline(deadline) {}

FormatContext::~FormatContext() = default;

int FormatContext::interrupted(void* self) {
  const bool isLate =
      std::chrono::steady_clock::now() >= static_cast<FormatContext*>(self)->m_deadline;
  return isLate || StopSignal::isSet() ? 1 : 0;
}

bool FormatContext::open(const std::string& path) {
  // An image full of video looks like one, with its files in whatever order they lie in.
  if (!isRegularFile(path) || readImageHead(path).isImage()) return false;
  m_path = path;
  return openWithin(kUsualLimits);
}

bool FormatContext::openWithin(const ProbeLimits& limits) {
  m_context.reset();
#if LIBAVFORMAT_VERSION_MAJOR < 58
  av_register_all();
#endif
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) return false;
  context->interrupt_callback = {&FormatContext::interrupted, this};

  Options options;
  options.set("protocol_whitelist", "file");
  options.set("format_whitelist", formatWhitelist().c_str());
  options.set("probesize", limits.bytes);
  options.set("analyzeduration", limits.microseconds);
  // With the prefix no name can be taken for that of another protocol.
  const std::string url = "file:" + m_path;
  // A failed open frees the context.
  if (avformat_open_input(&context, url.c_str(), nullptr, options.get()) < 0) return false;
  m_context.reset(context);
  return true;
}

bool FormatContext::readStreamInfo() {
  if (avformat_find_stream_info(m_context.get(), nullptr) < 0) return false;
  if (!mayHideSound()) return true;
  return openWithin(kDeepLimits) && avformat_find_stream_info(m_context.get(), nullptr) >= 0;
}

// A program stream, as on a DVD, does not say what is in it: the sound of a title that begins in
// silence shows up when it begins.
bool FormatContext::mayHideSound() const {
  if (std::string_view(m_context->iformat->name) != "mpeg") return false;
  for (unsigned i = 0; i < m_context->nb_streams; ++i)
    if (m_context->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) return false;
  return true;
}

bool FormatContext::hasStreams() const {
  return m_context->nb_streams > 0;
}

ContainerFacts FormatContext::facts() {
  ContainerFacts facts;
  facts.demuxer = m_context->iformat->name;
  if (m_context->duration != AV_NOPTS_VALUE)
    facts.durationUs = std::max<int64_t>(m_context->duration, 0);
  facts.bitRate = m_context->bit_rate;
  for (unsigned i = 0; i < m_context->nb_streams; ++i)
    facts.streams.push_back(streamFacts(*m_context->streams[i]));
  facts.playTime = playTime();
  return facts;
}

StreamFacts FormatContext::streamFacts(AVStream& stream) const {
  const AVCodecParameters& codec = *stream.codecpar;
  StreamFacts facts;
  facts.kind = kindOf(codec.codec_type);
  facts.nativeType = codec.codec_type;
  facts.codecId = codec.codec_id;
  facts.profile = codec.profile;
  facts.level = codec.level;
  facts.bitRate = codec.bit_rate;
  facts.sampleRate = codec.sample_rate;
  facts.channels = codec.ch_layout.nb_channels;
  if (facts.kind != StreamKind::Video) return facts;
  facts.coverArt = isCoverArt(stream);
  facts.width = codec.width;
  facts.height = codec.height;
  facts.frameRate = frameRate(stream);
  facts.sar = knownFraction(av_guess_sample_aspect_ratio(m_context.get(), &stream, nullptr));
  facts.dar = displayAspect(codec.width, codec.height, facts.sar);
  facts.rotateTag = rotateTag(stream);
  if (const auto matrix = displayMatrix(stream)) {
    facts.matrixDegrees = clockwiseDegrees(*matrix);
    facts.matrixMirrors = isMirroring(*matrix);
  }
  return facts;
}

PlayTime FormatContext::playTime() {
  const AVFormatContext& context = *m_context;
  if (context.duration == AV_NOPTS_VALUE || context.duration <= 0) return unstatedPlayTime();

  int64_t lengthUs = context.duration;
  Span tracks;
  bool allKnown = true;
  for (unsigned i = 0; i < context.nb_streams; ++i) {
    const AVStream& stream = *context.streams[i];
    if (!countsForLength(stream)) continue;
    if (stream.duration == AV_NOPTS_VALUE) {
      allKnown = false;
      continue;
    }
    if (isUnknownMark(stream.duration)) return measuredPlayTime();
    const int64_t begin = stream.start_time == AV_NOPTS_VALUE ? 0 : stream.start_time;
    tracks.add(toMicroseconds(begin, stream.time_base),
               toMicroseconds(begin + stream.duration, stream.time_base));
  }
  if (allKnown && !tracks.empty()) {
    const int64_t origin = context.start_time == AV_NOPTS_VALUE ? 0 : context.start_time;
    const int64_t tracksUs = tracks.end() - origin;
    if (tracksUs > 0) lengthUs = std::min(lengthUs, tracksUs);
  }
  const bool guessed =
      av_fmt_ctx_get_duration_estimation_method(&context) == AVFMT_DURATION_FROM_BITRATE;
  return {lengthUs / 1000, guessed ? KX_PLAYTIME_ESTIMATED : KX_PLAYTIME_STATED};
}

PlayTime FormatContext::unstatedPlayTime() {
  if (std::string_view(m_context->iformat->name) == "asf")
    if (const auto ms = asfPlayTimeMs(m_path)) return {*ms, KX_PLAYTIME_STATED};
  return measuredPlayTime();
}

PlayTime FormatContext::measuredPlayTime() {
  const std::unique_ptr<AVPacket, PacketCloser> packet(av_packet_alloc());
  if (!packet) return {};
  Span seen;
  int64_t bytes = 0;
  int result = 0;
  while (bytes <= kMeasureLimit && (result = av_read_frame(m_context.get(), packet.get())) >= 0) {
    const AVStream& stream = *m_context->streams[packet->stream_index];
    bytes += packet->size;
    const int64_t begin = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (begin != AV_NOPTS_VALUE && countsForLength(stream)) {
      seen.add(toMicroseconds(begin, stream.time_base),
               toMicroseconds(begin + packet->duration, stream.time_base));
    }
    av_packet_unref(packet.get());
  }
  // Only a whole file tells its length; anything but the end of file means that it was not.
  if (result != AVERROR_EOF || seen.empty()) return {};
  return {seen.length() / 1000, KX_PLAYTIME_MEASURED};
}

}  // namespace kxprobe
