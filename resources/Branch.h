#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "resources/VideoProfile.h"

namespace runner {

// A video profile of a job that is still to be made, for ways that make several at a time.
struct Branch {
  int row;  // of the profile table
  std::unique_ptr<VideoProfile> profile;
  std::vector<std::string> command;  // that makes it alone on the CPU

  const TransConfigEntry& config() const { return gTransConfig[row]; }
  uint64_t bit() const { return uint64_t{1} << row; }
};

// Rows of the video profiles among a job's flags.
std::vector<int> selectedVideoRows(uint64_t flags);

// The selected video profiles that can be made and are not in place.
// @param done gets the bits of those that are
std::vector<Branch> collectBranches(const VideoContext& video, uint64_t& done);

// Sets their transcoders up, and drops those that cannot be.
void openBranches(std::vector<Branch>& branches);

// A switch of the runner in section TRANSCODESVR; off when it is not there.
bool isTurnedOn(const char* key);

}  // namespace runner
