#include "engines/FilterChain.h"

#include <algorithm>
#include <cstdlib>

#include "engines/EngineCommand.h"

extern "C" {
#include <libavcodec/codec_desc.h>
}

namespace engines {
namespace {

constexpr const char* kPixelFormat = "format=yuv420p";

std::string join(const std::vector<std::string>& pieces) {
  std::string chain;
  for (const std::string& piece : pieces) chain += (chain.empty() ? "" : ",") + piece;
  return chain;
}

std::string scaleTo(const PictureSize& size) {
  return "scale=" + std::to_string(size.width) + ":" + std::to_string(size.height);
}

bool transposes(int degree) {
  return degree == 90 || degree == 270;
}

const char* orientation(int degree) {
  switch (degree) {
  case 90:
    return "transpose=1";
  case 180:
    return "vflip,hflip";
  case 270:
    return "transpose=2";
  default:
    return nullptr;
  }
}

// As orientation(), for a source whose display matrix mirrors the picture besides.
const char* mirroredOrientation(int degree) {
  switch (degree) {
  case 90:
    return "transpose=0";
  case 180:
    return "hflip";
  case 270:
    return "transpose=3";
  default:
    return "vflip";
  }
}

// True when two sizes have the same shape within 1 %.
bool sameShape(const PictureSize& a, const PictureSize& b) {
  const int64_t left = a.width * b.height;
  const int64_t right = a.height * b.width;
  return std::abs(left - right) * 100 <= right;
}

PictureSize evened(const PictureSize& size) {
  const auto side = [](int64_t pixels) { return std::max<int64_t>(2, pixels / 2 * 2); };
  return {side(size.width), side(size.height)};
}

bool isTextSubtitle(const KxStream& stream) {
  if (stream.m_isEmpty) return false;
  const AVCodecDescriptor* descriptor =
      avcodec_descriptor_get(static_cast<AVCodecID>(stream.m_codecId));
  return descriptor != nullptr && (descriptor->props & AV_CODEC_PROP_TEXT_SUB) != 0;
}

// Empty when no subtitle is asked for or when it cannot be drawn. The subtitle's times are
// those of the source; a start offset shifts the pictures, and the job may shift the subtitle.
std::string subtitleFilter(const TranscodeParam& param, KxMediaInfo& info) {
  DrawnSubtitle subtitle;
  subtitle.size = param.m_subSize;
  subtitle.colour = param.m_subColor;
  subtitle.shift = int64_t{param.m_seekTime} - param.m_subSeek;
  if (!param.m_subtitle.empty()) {
    subtitle.file = param.m_subtitle;
    return drawingFilter(subtitle);
  }
  const bool inVideo = param.m_sid >= 0 && info.m_mediaType == 0 &&
                       isTextSubtitle(info.getSubtitleTrack(param.m_sid));
  if (!inVideo) return "";
  subtitle.file = param.m_inFile;
  subtitle.track = param.m_sid;
  return drawingFilter(subtitle);
}

// Decides what the picture of one job has to look like.
class PicturePlan {
 public:
  PicturePlan(const TranscodeParam& param, const KxStream& video)
      : m_param(param), m_degree(transcodeDegree(param, video)),
        m_mirrored(video.m_isMirrored && m_degree == video.m_rotation),
        m_sampleAspectKnown(aspectKnown(video)), m_source(upright({video.m_width, video.m_height})),
        m_wanted(plainResult(video)) {
    const bool storedShape = !m_sampleAspectKnown || param.m_noDAR;
    // With a known sample aspect ratio the scaler itself keeps what is shown undistorted.
    if (storedShape && !sameShape(m_wanted, m_source)) {
      m_wanted = fitted();
      m_wrong = true;
    }
    if (m_mirrored || !m_wanted.even()) m_wrong = true;
    m_wanted = evened(m_wanted);
  }

  bool wrong() const { return m_wrong; }

  std::string chain(const std::string& subtitles) const {
    std::vector<std::string> pieces;
    const char* turn = m_mirrored ? mirroredOrientation(m_degree) : orientation(m_degree);
    if (turn != nullptr) pieces.emplace_back(turn);
    if (m_wanted != m_source) addScale(pieces);
    if (!subtitles.empty()) pieces.push_back(subtitles);
    pieces.emplace_back(kPixelFormat);
    return join(pieces);
  }

 private:
  PictureSize upright(const PictureSize& size) const {
    return transposes(m_degree) ? size.swapped() : size;
  }

  // Size of the picture that the plain chain gives.
  PictureSize plainResult(const KxStream& video) const {
    const OutputSize size = computeOutputSize(
        video, {m_param.m_width, m_param.m_height, m_param.m_height / 10, m_param.m_noDAR});
    const PictureSize scaled{size.width, size.height};
    return scaled.positive() ? upright(scaled) : m_source;
  }

  // The upright source in the requested height, or as it is.
  PictureSize fitted() const {
    if (m_param.m_width <= 0 || m_param.m_height <= 0) return m_source;
    const int64_t width = m_source.width * m_param.m_height / m_source.height;
    if (width <= kWidthLimit) return {width, m_param.m_height};
    return {kWidthLimit, m_source.height * kWidthLimit / m_source.width};
  }

  void addScale(std::vector<std::string>& pieces) const {
    // A very narrow picture loses its shape to the rounding; square pixels going in let the
    // scaler make up for it in the sample aspect ratio.
    const bool square = sameShape(m_wanted, m_source);
    if (!m_sampleAspectKnown && !square) pieces.emplace_back("setsar=1");
    pieces.push_back(scaleTo(m_wanted));
    if (!m_sampleAspectKnown && square) pieces.emplace_back("setsar=1");
  }

  const TranscodeParam& m_param;
  int m_degree;
  bool m_mirrored;
  bool m_sampleAspectKnown;
  PictureSize m_source;  // upright
  PictureSize m_wanted;  // upright
  bool m_wrong = false;
};

std::string correctedChain(const TranscodeParam& param, KxMediaInfo& info) {
  const KxStream video = info.getVideoTrack(param.m_vid);
  if (video.m_isEmpty || video.m_width <= 0 || video.m_height <= 0) return "";
  const PicturePlan plan(param, video);
  const std::string subtitles = subtitleFilter(param, info);
  return plan.wrong() || !subtitles.empty() ? plan.chain(subtitles) : "";
}

}  // namespace

std::string videoFilter(const PictureSize& size, int degree) {
  std::vector<std::string> pieces;
  if (size.positive()) pieces.push_back(scaleTo(size));
  if (orientation(degree) != nullptr) pieces.emplace_back(orientation(degree));
  pieces.emplace_back(kPixelFormat);
  return join(pieces);
}

std::vector<std::string> correctedVideoFilter(const TranscodeParam& param, KxMediaInfo& info) {
  std::vector<std::string> arguments;
  const std::string chain = correctedChain(param, info);
  if (!chain.empty()) arguments.insert(arguments.end(), {"-vf", chain});
  if (param.m_formatId == KX_FORMAT_MP4)
    arguments.insert(arguments.end(), {"-movflags", "+faststart"});
  return arguments;
}

}  // namespace engines
