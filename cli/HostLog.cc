// The only host call that the socket class makes. The client says in its own words what went
// wrong, so the service's log lines are shown only on request.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "KxHostPlatform.h"

void myDebugUtilWrapperPrint(int, int, const char* source, int, const char* func, const char* fmt,
                             ...) {
  static const bool verbose = getenv("XCODECTL_VERBOSE") != nullptr;
  if (!verbose) return;
  const int savedErrno = errno;
  fprintf(stderr, "%s::%s: ", source, func);
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
  errno = savedErrno;
}
