#pragma once

#include <string>

#include "resources/JobRun.h"

namespace runner {

// Makes a picture known to the media library and adds it to the album of its folder. Failures
// are logged; the picture is there all the same.
// @param albumFolder with trailing "/"
// @return false when the library's tool hangs
bool addToCatalog(JobRun& run, const std::string& picture, const std::string& albumFolder);

}  // namespace runner
