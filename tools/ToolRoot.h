#pragma once

#include <string>

namespace kxtools {

/// Root of the system that the running program belongs to: the value of KX_ROOT when it is
/// set, else what stands before @p fixedPath in the program's own path, else empty.
std::string systemRoot(const std::string& fixedPath);

}  // namespace kxtools
