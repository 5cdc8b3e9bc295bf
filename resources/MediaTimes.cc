#include "resources/MediaTimes.h"

#include <algorithm>
#include <cstdlib>

#include "resources/MediaFile.h"

extern "C" {
#include <libavutil/display.h>
}

namespace runner {
namespace {

using Kind = StreamTimes::Kind;

double seconds(int64_t count, const AVRational& base) {
  return count == AV_NOPTS_VALUE || count <= 0 ? 0
                                               : static_cast<double>(count) * base.num / base.den;
}

Kind kindOf(const AVStream& stream) {
  if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO) return Kind::Video;
  if (stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO) return Kind::Audio;
  return Kind::Other;
}

bool isCoverArt(const AVStream& stream) {
  return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

bool isTurned(const AVStream& stream) {
  const uint8_t* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
  if (matrix != nullptr &&
      std::abs(av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix))) > 0.5)
    return true;
  const AVDictionaryEntry* tag = av_dict_get(stream.metadata, "rotate", nullptr, 0);
  return tag != nullptr && atoi(tag->value) % 360 != 0;
}

double startOf(const AVStream& stream, int64_t earliest) {
  if (stream.start_time == AV_NOPTS_VALUE) return 0;
  const int64_t start = av_rescale_q(stream.start_time, stream.time_base, {1, AV_TIME_BASE});
  return static_cast<double>(start - earliest) / AV_TIME_BASE;
}

int64_t earliestStart(const AVFormatContext& context) {
  int64_t earliest = INT64_MAX;
  for (unsigned i = 0; i < context.nb_streams; ++i) {
    const AVStream& stream = *context.streams[i];
    if (stream.start_time == AV_NOPTS_VALUE) continue;
    const int64_t start = av_rescale_q(stream.start_time, stream.time_base, {1, AV_TIME_BASE});
    earliest = std::min(earliest, start);
  }
  return earliest;
}

StreamTimes timesOf(const AVStream& stream, int64_t earliest) {
  StreamTimes times;
  times.kind = kindOf(stream);
  times.coverArt = isCoverArt(stream);
  times.width = stream.codecpar->width;
  times.height = stream.codecpar->height;
  times.turned = isTurned(stream);
  times.stated = seconds(stream.duration, stream.time_base);
  times.isEmpty = times.stated <= 0 && stream.nb_frames <= 0;
  times.start = startOf(stream, earliest);
  return times;
}

template <typename Stream>
const Stream* findStream(const std::vector<Stream>& streams, Kind kind, int n) {
  for (const Stream& stream : streams) {
    if (stream.kind == kind && !stream.coverArt && n-- == 0) return &stream;
  }
  return nullptr;
}

// Follows one stream's packets.
class StreamCounter {
 public:
  void add(const AVPacket& packet) {
    m_sum += std::max<int64_t>(packet.duration, 0);
    const int64_t time = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    if (time == AV_NOPTS_VALUE || (packet.flags & AV_PKT_FLAG_DISCARD) != 0) return;
    m_first = m_any ? std::min(m_first, time) : time;
    m_end = m_any ? std::max(m_end, time + packet.duration) : time + packet.duration;
    m_any = true;
  }

  StreamCount result(const AVStream& stream) const {
    return {kindOf(stream), isCoverArt(stream), seconds(m_end - m_first, stream.time_base),
            seconds(m_sum, stream.time_base)};
  }

 private:
  bool m_any = false;
  int64_t m_first = 0;
  int64_t m_end = 0;
  int64_t m_sum = 0;
};

bool hasSampleBeyond(const AVStream& stream, int64_t fileSize) {
  for (int i = avformat_index_get_entries_count(&stream) - 1; i >= 0; --i) {
    const AVIndexEntry* entry = avformat_index_get_entry(const_cast<AVStream*>(&stream), i);
    if (entry->pos + entry->size > fileSize) return true;
  }
  return false;
}

// False when reading ended before the end of the file.
bool readPackets(AVFormatContext& context, std::vector<StreamCounter>& counters,
                 const std::function<bool()>& goOn) {
  const Packet packet(av_packet_alloc());
  int result = 0;
  while (goOn() && (result = av_read_frame(&context, packet.get())) >= 0) {
    const auto index = static_cast<size_t>(packet->stream_index);
    if (index >= counters.size()) counters.resize(index + 1);
    counters[index].add(*packet);
    av_packet_unref(packet.get());
  }
  return result == AVERROR_EOF;
}

}  // namespace

const StreamTimes* MediaTimes::find(StreamTimes::Kind kind, int n) const {
  return findStream(streams, kind, n);
}

const StreamCount* PacketCount::find(StreamTimes::Kind kind, int n) const {
  return findStream(streams, kind, n);
}

std::optional<MediaTimes> readTimes(const std::string& path, bool withAnalysis) {
  const MediaFile context = openMediaFile(path);
  if (!context) return std::nullopt;
  if (withAnalysis && avformat_find_stream_info(context.get(), nullptr) < 0) return std::nullopt;
  MediaTimes times;
  times.stated = seconds(context->duration, {1, AV_TIME_BASE});
  const int64_t earliest = earliestStart(*context);
  for (unsigned i = 0; i < context->nb_streams; ++i)
    times.streams.push_back(timesOf(*context->streams[i], earliest));
  return times;
}

PacketCount countPackets(const std::string& path, const std::function<bool()>& goOn) {
  PacketCount count;
  const MediaFile context = openMediaFile(path);
  if (!context || avformat_find_stream_info(context.get(), nullptr) < 0) return count;
  count.lengthStated = context->duration_estimation_method == AVFMT_DURATION_FROM_STREAM;
  std::vector<StreamCounter> counters(context->nb_streams);
  count.complete = readPackets(*context, counters, goOn);
  const int64_t fileSize = avio_size(context->pb);
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    const AVStream& stream = *context->streams[i];
    if (hasSampleBeyond(stream, fileSize)) count.samplesBeyond = true;
    count.streams.push_back(counters[i].result(stream));
  }
  return count;
}

}  // namespace runner
