#include "engines/PipeCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";
static constexpr const char* kFunction = "FileOutputHelperFunc";

namespace engines {
namespace {

constexpr size_t kBufferSize = 8192;
constexpr std::chrono::microseconds kIdle{100};
// A cancel is noticed within this time while the source is awaited.
constexpr std::chrono::milliseconds kPauseStep{50};

}  // namespace

void PipeCopy::run(const Waiting& waiting) {
  const UniqueFd source = openSource(waiting);
  if (!source) {
    KX_LOG_AS(kFunction, "timeout: can not open %s\n", m_source.c_str());
    return;
  }
  if (!m_keep || !copy(source.get())) KX_LOG_AS(kFunction, "FileOutputHelper has been cancelled\n");
}

UniqueFd PipeCopy::openSource(const Waiting& waiting) const {
  for (int attempt = 0; attempt < waiting.attempts; ++attempt) {
    // Non-blocking: opening a pipe that nobody writes yet would wait without end.
    UniqueFd source(open(m_source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (source) return source;
    pause(waiting.interval);
    if (!m_keep) break;
  }
  return UniqueFd();
}

void PipeCopy::pause(std::chrono::milliseconds interval) const {
  const auto end = std::chrono::steady_clock::now() + interval;
  for (auto now = std::chrono::steady_clock::now(); m_keep && now < end;
       now = std::chrono::steady_clock::now())
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(kPauseStep, end - now));
}

// False when the copy was cancelled. Reads with read(2): stdio keeps the end-of-file mark, so
// what a growing file gains after its first end would never be copied.
bool PipeCopy::copy(int source) const {
  char buffer[kBufferSize];
  ssize_t count = 0;
  do {
    if (m_finishing && count < 1) return true;
    count = read(source, buffer, sizeof buffer);
    if (count > 0) {
      write(buffer, static_cast<size_t>(count));
    } else {
      std::this_thread::sleep_for(kIdle);
    }
  } while (m_keep);
  return false;
}

void PipeCopy::write(const char* bytes, size_t count) const {
  if (fwrite(bytes, 1, count, m_destination) < count)
    KX_LOG_AS(kFunction, "fwrite fail, error=%d, strerror=%s\n", errno, strerror(errno));
}

}  // namespace engines
