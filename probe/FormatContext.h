#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "probe/ContainerFacts.h"

struct AVFormatContext;
struct AVStream;

namespace kxprobe {

// How far a demuxer reads to find the streams of a file; text as libavformat takes it.
struct ProbeLimits {
  const char* bytes;
  const char* microseconds;
};

// Owns the demuxer of one local file and gives up when its time is over or the thread's work
// has to end. Formats that name other files (playlists, file lists, scripts), images of discs
// and protocols other than "file" are refused.
//
// Used by one thread. Library code only: it calls functions of libavformat and uses none of
// its variables, nor the address of any of its functions, because both would have to be
// resolved when the library is loaded.
class FormatContext {
 public:
  explicit FormatContext(std::chrono::steady_clock::time_point deadline);
  ~FormatContext();
  FormatContext(const FormatContext&) = delete;
  FormatContext& operator=(const FormatContext&) = delete;

  // False when the path is no regular file, or nothing that a demuxer recognises.
  bool open(const std::string& path);
  // Reads as much as is needed to know the streams. False when that fails.
  bool readStreamInfo();
  bool hasStreams() const;
  // After readStreamInfo(). May read on through the file to measure its length.
  ContainerFacts facts();

 private:
  struct Closer {
    void operator()(AVFormatContext* context) const;
  };

  static int interrupted(void* self);
  bool openWithin(const ProbeLimits& limits);
  bool mayHideSound() const;
  StreamFacts streamFacts(AVStream& stream) const;
  PlayTime playTime();
  PlayTime unstatedPlayTime();
  PlayTime measuredPlayTime();

  std::chrono::steady_clock::time_point m_deadline;
  std::string m_path;
  std::unique_ptr<AVFormatContext, Closer> m_context;
};

}  // namespace kxprobe
