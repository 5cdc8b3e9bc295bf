#pragma once

#include <cstdint>
#include <vector>

#include "resources/Branch.h"
#include "resources/ResourceUse.h"

namespace runner {

// Makes several video profiles of one source on the CPU from one decoding: one encoder writes
// them all, each with the very options that it would get alone, so that the pictures are the
// same to the bit.
//
// Nothing depends on its success: what it does not finish is left to be made alone. Off unless
// the key FANOUT is 1.
class FanOutJob {
 public:
  explicit FanOutJob(const VideoContext& video) : m_video(video) {}
  FanOutJob(const FanOutJob&) = delete;
  FanOutJob& operator=(const FanOutJob&) = delete;
  // Runs until every result that came out well is in place.
  // @return the rows of the profile table that are done, as bits of a job's flags; among them
  // those that were in place before
  uint64_t run();

 private:
  bool isWanted() const;
  void encode(KxResource2& cpu);
  Attempt encodeAll();
  void finish(Branch& branch);

  const VideoContext m_video;
  std::vector<Branch> m_branches;
  uint64_t m_done = 0;
};

}  // namespace runner
