#pragma once

#include <optional>
#include <string>

#include "KxHostPlatform.h"

// What both transcoders ask the system and the host.

namespace engines {

bool exists(const std::string& path);

// The media service that is used, its program path cut to what is supported; nothing when
// none is installed.
std::optional<MediaSvcVarInfo> mediaService();

// Name of a codec for the encoder's command line; nothing when the host knows none.
std::optional<std::string> codecName(int codecId);

}  // namespace engines
