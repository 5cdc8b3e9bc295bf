#pragma once

#include <string>

namespace kxhost {

/// Releases the disc images that processes which no longer exist have left mounted under the
/// service's mount folder. @return how many were released
int releaseStaleIsoMounts();

/// Folder under which mountIso() makes its mount points.
std::string isoMountFolder();

}  // namespace kxhost
