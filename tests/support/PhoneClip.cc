#include "tests/support/PhoneClip.h"

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "tests/support/TestSupport.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace kxtest {
namespace {

constexpr int kRate = 8000;
constexpr int kFrameSamples = 160;
constexpr int kPacketFrames = 5;
constexpr int kFrameBytes = 32;       // of the best mode, its head included
constexpr uint8_t kFrameHead = 0x3c;  // best mode, good frame

struct InputCloser {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct OutputCloser {
  void operator()(AVFormatContext* context) const {
    avio_closep(&context->pb);
    avformat_free_context(context);
  }
};
struct PacketFree {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

class PhoneClip {
 public:
  bool make(const std::string& picture, const std::string& path, int seconds) {
    return open(picture, path) && writeSound(seconds) && writePicture() &&
           av_write_trailer(m_output.get()) == 0;
  }

 private:
  // In Matroska: the writer of phone files refuses such packets.
  bool open(const std::string& picture, const std::string& path) {
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, picture.c_str(), nullptr, nullptr) != 0) return false;
    m_input.reset(context);
    if (avformat_find_stream_info(context, nullptr) < 0) return false;
    context = nullptr;
    if (avformat_alloc_output_context2(&context, nullptr, "matroska", path.c_str()) < 0)
      return false;
    m_output.reset(context);
    AVStream* video = avformat_new_stream(context, nullptr);
    AVStream* sound = avformat_new_stream(context, nullptr);
    avcodec_parameters_copy(video->codecpar, m_input->streams[0]->codecpar);
    video->codecpar->codec_tag = 0;
    sound->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    sound->codecpar->codec_id = AV_CODEC_ID_AMR_NB;
    sound->codecpar->sample_rate = kRate;
    sound->codecpar->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    sound->codecpar->frame_size = kFrameSamples * kPacketFrames;
    sound->time_base = {1, kRate};
    return avio_open(&context->pb, path.c_str(), AVIO_FLAG_WRITE) == 0 &&
           avformat_write_header(context, nullptr) >= 0;
  }

  bool writeSound(int seconds) {
    std::minstd_rand random;
    constexpr int64_t kSamples = int64_t{kFrameSamples} * kPacketFrames;
    for (int64_t time = 0; time < int64_t{seconds} * kRate; time += kSamples) {
      std::vector<uint8_t> bytes(size_t{kFrameBytes} * kPacketFrames);
      for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = i % kFrameBytes == 0 ? kFrameHead : static_cast<uint8_t>(random() >> 8);
      const std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
      if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) != 0) return false;
      memcpy(packet->data, bytes.data(), bytes.size());
      packet->stream_index = 1;
      packet->pts = packet->dts = time;
      packet->duration = kSamples;
      packet->flags = AV_PKT_FLAG_KEY;
      av_packet_rescale_ts(packet.get(), {1, kRate}, m_output->streams[1]->time_base);
      if (av_interleaved_write_frame(m_output.get(), packet.get()) != 0) return false;
    }
    return true;
  }

  bool writePicture() {
    const std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    while (av_read_frame(m_input.get(), packet.get()) == 0) {
      av_packet_rescale_ts(packet.get(), m_input->streams[0]->time_base,
                           m_output->streams[0]->time_base);
      packet->stream_index = 0;
      packet->pos = -1;
      if (av_interleaved_write_frame(m_output.get(), packet.get()) != 0) return false;
    }
    return true;
  }

  std::unique_ptr<AVFormatContext, InputCloser> m_input;
  std::unique_ptr<AVFormatContext, OutputCloser> m_output;
};

}  // namespace

bool makePhoneClip(const std::string& path, int seconds) {
  const TempDir dir;
  const std::string picture = dir / "picture.mp4";
  const bool hasPicture = run({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
                               "testsrc2=size=176x144:rate=15:duration=" + std::to_string(seconds),
                               "-pix_fmt", "yuv420p", "-c:v", "mpeg4", picture})
                              .has_value();
  return hasPicture && PhoneClip().make(picture, path, seconds);
}

}  // namespace kxtest
