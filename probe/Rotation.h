#pragma once

#include "probe/ContainerFacts.h"

namespace kxprobe {

// Degrees that a player turns the pictures of a stream clockwise: the "rotate" entry of its
// metadata, else its display matrix. Only quarter turns count; anything else is logged and 0.
int rotationOf(const StreamFacts& stream);

}  // namespace kxprobe
