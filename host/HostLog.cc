#include "host/HostLog.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

#include "KxHostPlatform.h"

namespace kxhost {
namespace {
std::mutex gSinkMutex;
LogSink gSink;
}  // namespace

void setLogSink(LogSink sink) {
  std::lock_guard<std::mutex> lock(gSinkMutex);
  gSink = std::move(sink);
}
}  // namespace kxhost

void myDebugUtilWrapperPrint(int level, int, const char* source, int line, const char* func,
                             const char* fmt, ...) {
  const int savedErrno = errno;
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  const int length = vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::vector<char> text(static_cast<size_t>(length < 0 ? 0 : length) + 1);
  if (length > 0) vsnprintf(text.data(), text.size(), fmt, args);
  va_end(args);
  {
    std::lock_guard<std::mutex> lock(kxhost::gSinkMutex);
    if (kxhost::gSink) kxhost::gSink({level, source, line, func, text.data()});
  }
  errno = savedErrno;
}
