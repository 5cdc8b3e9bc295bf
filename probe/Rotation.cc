#include "probe/Rotation.h"

#include <cstdlib>
#include <optional>

#include "frame/Log.h"

static constexpr const char* kLogSource = "KxMediainfo";

namespace kxprobe {
namespace {

std::optional<int> statedDegrees(const StreamFacts& stream) {
  // As atoi reads it: leading digits, 0 for anything else.
  if (stream.rotateTag)
    return static_cast<int>(std::strtol(stream.rotateTag->c_str(), nullptr, 10));
  return stream.matrixDegrees;
}

}  // namespace

int rotationOf(const StreamFacts& stream) {
  const auto degrees = statedDegrees(stream);
  if (!degrees) return 0;
  if (*degrees == 90 || *degrees == 180 || *degrees == 270) return *degrees;
  KX_LOG_AS("init", "atoi(pRotation->value)=%d, set rotation as 0.\n", *degrees);
  return 0;
}

}  // namespace kxprobe
