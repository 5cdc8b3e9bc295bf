#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "KxMediainfo.h"

// Decides whether a finished file may be put in place, and whether a source is all there.

namespace runner {

// The source of one conversion.
struct SourceFacts {
  std::string path;
  bool isDisc = false;     // a disc folder or image, which cannot be read as one file
  int64_t playTimeMs = 0;  // 0 unknown
  int32_t playTimeSource = KX_PLAYTIME_UNKNOWN;
  std::vector<std::string> titleFiles;  // of a disc, readable as long as the job runs
};
SourceFacts factsOf(const std::string& path, const KxMediaInfo& info);

struct ExpectedResult {
  int videoTrack = -1;  // track of the source that the result's picture comes from, -1 none
  int audioTrack = -1;  // likewise its sound
};

// Empty when nothing speaks against the source; else why it cannot give a whole result.
std::string sourceFault(const SourceFacts& source);

// Empty when the file is a whole result of the source: it opens, has the expected streams,
// shows upright without help of the player, and its streams last as long as those of the
// source, within one second or 2 %. Where the source states another length than the result
// has, the source's packets are counted: a length that is merely stated wrong is forgiven
// when the container is whole or states no length of its own. The time stamps of a disc begin
// anew in the middle of its files, so there the count decides.
// @param goOn asked while the source is read; false gives up
std::string resultFault(const std::string& result, const SourceFacts& source,
                        const ExpectedResult& expected, const std::function<bool()>& goOn);

}  // namespace runner
