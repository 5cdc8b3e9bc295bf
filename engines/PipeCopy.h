#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "frame/UniqueFd.h"

namespace engines {

// One copy of what an encoder writes to a pipe or file into a stream. Runs on a thread of its
// own; the flags are set by others.
class PipeCopy {
 public:
  struct Waiting {
    int attempts = 90;  // to open the source
    std::chrono::milliseconds interval = std::chrono::seconds(1);
  };

  PipeCopy(const std::string& source, FILE* destination, const std::atomic<bool>& keep,
           const std::atomic<bool>& finishing)
      : m_source(source), m_destination(destination), m_keep(keep), m_finishing(finishing) {}

  // Opens the source, waiting for it to appear, and copies until it is finished or cancelled.
  void run(const Waiting& waiting);

 private:
  UniqueFd openSource(const Waiting& waiting) const;
  void pause(std::chrono::milliseconds interval) const;
  bool copy(int source) const;
  void write(const char* bytes, size_t count) const;

  const std::string& m_source;
  FILE* m_destination;
  const std::atomic<bool>& m_keep;
  const std::atomic<bool>& m_finishing;
};

}  // namespace engines
