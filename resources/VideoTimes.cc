#include "resources/VideoTimes.h"

#include "resources/MediaFile.h"

namespace runner {
namespace {

AVStream* firstVideo(const AVFormatContext& context) {
  for (unsigned i = 0; i < context.nb_streams; ++i) {
    if (context.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) return context.streams[i];
  }
  return nullptr;
}

// A packet that the end of the file cuts off is marked as corrupt.
bool isShown(const AVPacket& packet) {
  constexpr int kUnusable = AV_PKT_FLAG_DISCARD | AV_PKT_FLAG_CORRUPT;
  return packet.pts != AV_NOPTS_VALUE && (packet.flags & kUnusable) == 0;
}

double inSeconds(int64_t count, const AVRational& base) {
  return static_cast<double>(count) * base.num / base.den;
}

}  // namespace

std::optional<VideoTimes> readVideoTimes(const std::string& path,
                                         const std::function<bool()>& goOn) {
  const MediaFile context = openMediaFile(path);
  if (!context || avformat_find_stream_info(context.get(), nullptr) < 0) return std::nullopt;
  AVStream* const video = firstVideo(*context);
  if (video == nullptr || context->start_time == AV_NOPTS_VALUE) return std::nullopt;
  const AVRational rate = av_guess_frame_rate(context.get(), video, nullptr);
  VideoTimes times;
  times.rateNum = rate.num;
  times.rateDen = rate.den;
  const double start = inSeconds(context->start_time, {1, AV_TIME_BASE});
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    if (context->streams[i] != video) context->streams[i]->discard = AVDISCARD_ALL;
  }
  const Packet packet(av_packet_alloc());
  int result = 0;
  while (goOn() && (result = av_read_frame(context.get(), packet.get())) >= 0) {
    const bool isVideo = packet->stream_index == video->index;
    if (isVideo && !isShown(*packet)) return std::nullopt;
    if (isVideo) times.seconds.push_back(inSeconds(packet->pts, video->time_base) - start);
    av_packet_unref(packet.get());
  }
  if (result != AVERROR_EOF || rate.num <= 0 || rate.den <= 0) return std::nullopt;
  return times;
}

int64_t statedPictures(const std::string& path) {
  const MediaFile context = openMediaFile(path);
  const AVStream* const video = context ? firstVideo(*context) : nullptr;
  return video == nullptr ? 0 : video->nb_frames;
}

}  // namespace runner
