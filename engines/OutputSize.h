#pragma once

#include <cstdint>
#include <vector>

#include "KxMediainfo.h"
#include "engines/EngineNote.h"

namespace engines {

// A picture size in pixels.
struct PictureSize {
  int64_t width = 0;
  int64_t height = 0;

  bool operator==(const PictureSize&) const = default;
  bool positive() const { return width > 0 && height > 0; }
  bool even() const { return width % 2 == 0 && height % 2 == 0; }
  PictureSize swapped() const { return {height, width}; }
};

// What a job asks for.
struct SizeRequest {
  int width = 0;   // pixels; 0 keeps the source's
  int height = 0;  // pixels; 0 keeps the source's
  int tolerance = 0;
  bool ignoreDisplayAspect = false;
};

struct OutputSize {
  bool known = false;  // false when there is no video stream to compute from
  int width = 0;
  int height = 0;
  std::vector<EngineNote> notes;
};

// Widest picture that a computed size may have.
constexpr int64_t kWidthLimit = 1920;

// True when both the sample and the display aspect ratio of a stream are known.
bool aspectKnown(const KxStream& stream);

// Size of the encoder's picture, before any rotation is compensated. Pure.
OutputSize computeOutputSize(const KxStream& stream, const SizeRequest& request);

}  // namespace engines
