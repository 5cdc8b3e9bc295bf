#pragma once

#include <memory>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

// What the readers of media files share.

namespace runner {

struct MediaCloser {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using MediaFile = std::unique_ptr<AVFormatContext, MediaCloser>;

// Opens a plain local file, and nothing that it might name. Null when it cannot be opened.
// Reading it fails as soon as the thread's StopSignal is set.
MediaFile openMediaFile(const std::string& path);

struct PacketFree {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Packet = std::unique_ptr<AVPacket, PacketFree>;

}  // namespace runner
