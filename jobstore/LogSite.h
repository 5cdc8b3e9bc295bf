#pragma once

#include "KxHostPlatform.h"

namespace kxjobstore {

// Whose message a helper logs. As the default value of a parameter, here() names the
// function that calls the helper.
struct LogSite {
  const char* func;
  int line;

  static constexpr LogSite here(const char* func = __builtin_FUNCTION(),
                                int line = __builtin_LINE()) {
    return {func, line};
  }
};

// The job store's one name in the log, whichever of its files speaks.
inline constexpr const char* kStoreSource = "KxTransDBMgr";

}  // namespace kxjobstore

#define KX_LOG_SITE(site, ...)                                                                     \
  myDebugUtilWrapperPrint(5, 0, kxjobstore::kStoreSource, (site).line, (site).func, __VA_ARGS__)
