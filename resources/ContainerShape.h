#pragma once

#include <cstdint>
#include <string>

// Compares what a container states about its own length in bytes with the file it is in.

namespace runner {

enum class Completeness {
  Unknown,  // the container states no length, or is of another kind
  Whole,    // everything that the container states is there
  CutOff,   // the container states more than there is
};

struct ContainerShape {
  Completeness completeness = Completeness::Unknown;
  int64_t missing = 0;  // bytes that are stated but not there
};

// Reads a few headers of an MP4, Matroska, AVI, ASF or FLV file; anything else is Unknown.
ContainerShape examineShape(const std::string& path);

}  // namespace runner
