#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KxAbstractTranscodeSvr.h"
#include "KxResource2.h"
#include "KxTranscodeUnit2.h"

// What the service tells about its units, resources and registrations: one JSON object each,
// always valid UTF-8.
namespace statusrows {

std::vector<std::string> ofUnits(const std::vector<KxTranscodeUnit2>& units);
std::vector<std::string> ofResources(const std::vector<KxResource2>& resources);
// The registrations of all resources, outside processes and units alike.
std::vector<std::string> ofRegistrations(const std::vector<KxResource2>& resources);

// The rows of one answer as a JSON array.
struct Page {
  int32_t total = 0;  // rows there are
  int32_t count = 0;  // rows in this page
  std::string text;
};

inline constexpr size_t kPageSize = KxSockData_s::kTextSize - 1;

// As many whole rows as fit, from the first one wanted (below 0 counts as 0). A row that no
// page could ever hold appears as an empty object, so that whoever asks page by page gets on.
Page page(const std::vector<std::string>& rows, int32_t first, size_t maxBytes = kPageSize);

}  // namespace statusrows
