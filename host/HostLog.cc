#include "host/HostLog.h"

#include <fcntl.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "KxHostPlatform.h"

namespace kxhost {
namespace {

std::mutex gMutex;  // guards gSink and gLogger
LogSink gSink;
std::shared_ptr<spdlog::logger> gLogger;

std::atomic<int> gLevel{5};
// The process that owns the logger. A child between fork and exec finds another number here
// and must neither take a lock nor allocate: another thread may have held either at the fork.
std::atomic<pid_t> gOwner{getpid()};
// Descriptor of the open log file, for such children; -1 when there is none.
std::atomic<int> gFileDescriptor{-1};

bool ownsLogger() {
  const pid_t owner = gOwner.load(std::memory_order_relaxed);
  return owner == 0 || owner == getpid();  // 0: before the static initialisation
}

// Writes the escaped form of @p text with @p put(character), without allocating.
template <typename Put>
void escapeInto(const char* text, size_t length, Put put) {
  static constexpr char kHex[] = "0123456789abcdef";
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
  const auto putHex = [&](unsigned char byte) {
    for (const char c : {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]}) put(c);
  };
  for (size_t i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool c1Control = byte == 0xc2 && i + 1 < length &&
                           static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                           static_cast<unsigned char>(text[i + 1]) < 0xa0;
    if (byte == '\n') {
      put('\\'), put('n');
    } else if (byte == '\r') {
      put('\\'), put('r');
    } else if (byte == '\t') {
      put('\\'), put('t');
    } else if (c1Control) {
      putHex(byte);
      putHex(static_cast<unsigned char>(text[++i]));
    } else if (byte < 0x20 || byte == 0x7f) {
      putHex(byte);
    } else {
      put(text[i]);
    }
  }
}

// The path between fork and exec: stack memory and one write(2), nothing else.
void writeFromChild(int level, const char* source, int line, const char* func, const char* fmt,
                    va_list args) {
  if (level > gLevel.load(std::memory_order_relaxed)) return;
  std::array<char, 4096> text;
  int textLength = vsnprintf(text.data(), text.size(), fmt, args);
  if (textLength < 0) return;
  textLength = std::min(textLength, static_cast<int>(text.size()) - 1);

  std::array<char, 8192> out;
  int used = snprintf(out.data(), out.size(), "[%d] L%d %s:%d %s: ", static_cast<int>(getpid()),
                      level, source, line, func);
  if (used < 0) return;
  auto end = std::min(static_cast<size_t>(used), out.size() - 2);
  escapeInto(text.data(), static_cast<size_t>(textLength), [&](char c) {
    if (end < out.size() - 1) out[end++] = c;
  });
  out[end++] = '\n';
  const int file = gFileDescriptor.load(std::memory_order_relaxed);
  const ssize_t ignored = ::write(file >= 0 ? file : STDERR_FILENO, out.data(), end);
  static_cast<void>(ignored);
}

spdlog::level::level_enum spdlogLevel(int level) {
  switch (level) {
  case 2:
    return spdlog::level::err;
  case 3:
    return spdlog::level::warn;
  case 4:
    return spdlog::level::info;
  default:
    return level < 2 ? spdlog::level::critical : spdlog::level::debug;
  }
}

std::shared_ptr<spdlog::logger> makeLogger(const std::vector<spdlog::sink_ptr>& sinks) {
  auto logger = std::make_shared<spdlog::logger>("xcode", sinks.begin(), sinks.end());
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%P:%t] %v");
  logger->set_error_handler([](const std::string&) {});
  return logger;
}

spdlog::sink_ptr makeFileSink(const LogSettings& settings) {
  spdlog::file_event_handlers handlers;
  handlers.after_open = [](const spdlog::filename_t&, std::FILE* stream) {
    const int fd = fileno(stream);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    gFileDescriptor = fd;
  };
  handlers.before_close = [](const spdlog::filename_t&, std::FILE*) { gFileDescriptor = -1; };
  return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
      settings.file, settings.maxFileBytes, settings.oldFiles, false, handlers);
}

void writeFromOwner(int level, const char* source, int line, const char* func,
                    const std::string& text) {
  const std::lock_guard<std::mutex> lock(gMutex);
  if (gSink) {
    gSink({level, source, line, func, text});
    return;
  }
  if (level > gLevel.load(std::memory_order_relaxed)) return;
  if (!gLogger) gLogger = makeLogger({std::make_shared<spdlog::sinks::stderr_sink_mt>()});
  gLogger->log(spdlogLevel(level), "L{} {}:{} {}: {}", level, source, line, func,
               printableLine(text));
}

}  // namespace

void setLogSink(LogSink sink) {
  const std::lock_guard<std::mutex> lock(gMutex);
  gOwner = getpid();
  gSink = std::move(sink);
}

int configureLog(const LogSettings& settings) {
  const std::lock_guard<std::mutex> lock(gMutex);
  gOwner = getpid();
  gLogger.reset();
  gLevel = settings.level;
  int result = 0;
  std::vector<spdlog::sink_ptr> sinks;
  if (!settings.file.empty()) {
    try {
      sinks.push_back(makeFileSink(settings));
    } catch (const spdlog::spdlog_ex&) {
      result = 1;
    }
  }
  if (settings.standardError || result != 0)
    sinks.push_back(std::make_shared<spdlog::sinks::stderr_sink_mt>());
  gLogger = makeLogger(sinks);
  return result;
}

void setLogLevel(int level) {
  gLevel = level;
}

std::string printableLine(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  escapeInto(text.data(), text.size(), [&](char c) { result.push_back(c); });
  return result;
}

}  // namespace kxhost

void myDebugUtilWrapperPrint(int level, int, const char* source, int line, const char* func,
                             const char* fmt, ...) {
  const int savedErrno = errno;
  va_list args;
  va_start(args, fmt);
  if (kxhost::ownsLogger()) {
    va_list copy;
    va_copy(copy, args);
    const int length = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(static_cast<size_t>(std::max(length, 0)) + 1, '\0');
    if (length > 0) vsnprintf(text.data(), text.size(), fmt, args);
    text.pop_back();
    kxhost::writeFromOwner(level, source, line, func, text);
  } else {
    kxhost::writeFromChild(level, source, line, func, fmt, args);
  }
  va_end(args);
  errno = savedErrno;
}
