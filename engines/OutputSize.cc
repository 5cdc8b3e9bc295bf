#include "engines/OutputSize.h"

#include <cstdlib>
#include <limits>
#include <optional>

namespace engines {
namespace {

constexpr const char* kFunction = "getResizeBasedOnDAR_";

bool turned(const KxStream& stream) {
  return stream.m_rotation != 0 && stream.m_rotation != 180;
}

// Applies the size rules to one stream and one request.
class SizeRule {
 public:
  SizeRule(const KxStream& stream, const SizeRequest& request)
      : m_request(request), m_coded{stream.m_width, stream.m_height}, m_display{stream.m_dar_num,
                                                                                stream.m_dar_den},
        m_effective(turned(stream) ? m_coded.swapped() : m_coded),
        m_useDisplay(aspectKnown(stream) && !request.ignoreDisplayAspect) {}

  // Nothing when the request stands as it is.
  std::optional<PictureSize> compute(std::vector<EngineNote>& notes) const {
    if (!m_effective.positive()) return std::nullopt;
    if (m_request.width > 0 && m_request.height > 0) return fitRequestedHeight(notes);
    if (m_request.width == 0 && m_request.height == 0 && m_useDisplay) return squarePixels(notes);
    return std::nullopt;
  }

 private:
  std::optional<PictureSize> fitRequestedHeight(std::vector<EngineNote>& notes) const {
    const int64_t dw = std::abs(m_effective.width - m_request.width);
    const int64_t dh = std::abs(m_effective.height - m_request.height);
    // Equality on the height is meant: every other difference is recomputed.
    if (dw <= m_request.tolerance && dh == m_request.tolerance) return std::nullopt;

    // The picture's own ratio is limited by its coded size, also when it is turned.
    const PictureSize ratio = m_useDisplay ? m_display : m_effective;
    const PictureSize limitRatio = m_useDisplay ? m_display : m_coded;
    const int64_t width = ratio.width * m_request.height / ratio.height;
    if (width <= kWidthLimit) return PictureSize{width, m_request.height};
    notes.push_back({kFunction, "width > 1920, fix width resize"});
    return limited(limitRatio);
  }

  std::optional<PictureSize> squarePixels(std::vector<EngineNote>& notes) const {
    const float source =
        static_cast<float>(m_effective.width) / static_cast<float>(m_effective.height);
    const float shown = static_cast<float>(m_display.width) / static_cast<float>(m_display.height);
    if (source == shown) return std::nullopt;
    const int64_t width = m_effective.height * m_display.width / m_display.height;
    if (width <= kWidthLimit) return PictureSize{width, m_effective.height};
    notes.push_back({kFunction, "width > 1920, fix width resize\n"});
    return limited(m_display);
  }

  static PictureSize limited(const PictureSize& ratio) {
    return {kWidthLimit, ratio.height * kWidthLimit / ratio.width};
  }

  const SizeRequest& m_request;
  PictureSize m_coded;
  PictureSize m_display;
  PictureSize m_effective;
  bool m_useDisplay;
};

bool acceptable(const std::optional<PictureSize>& size) {
  return size && size->positive() && size->height <= std::numeric_limits<int>::max();
}

}  // namespace

bool aspectKnown(const KxStream& stream) {
  return stream.m_sar_num > 0 && stream.m_sar_den > 0 && stream.m_dar_num > 0 &&
         stream.m_dar_den > 0;
}

OutputSize computeOutputSize(const KxStream& stream, const SizeRequest& request) {
  OutputSize result;
  if (stream.m_isEmpty) {
    result.notes.push_back({kFunction, "can not get video stream info\n"});
    return result;
  }
  result.known = true;
  const std::optional<PictureSize> size = SizeRule(stream, request).compute(result.notes);
  if (acceptable(size)) {
    result.width = static_cast<int>(size->width) & ~1;
    result.height = static_cast<int>(size->height) & ~1;
  } else {
    result.notes.push_back({kFunction, "can not calculate w & h, set w & h as usr's input\n"});
    result.width = turned(stream) ? request.height : request.width;
    result.height = turned(stream) ? request.width : request.height;
  }
  result.notes.push_back({kFunction, "resize_w=" + std::to_string(result.width) +
                                         ", resize_h=" + std::to_string(result.height) + "\n"});
  return result;
}

}  // namespace engines
