#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "KxMediainfo.h"
#include "KxResource2.h"
#include "KxTranscoder.h"
#include "resources/ChildWatch.h"
#include "resources/JobRun.h"
#include "resources/OutputPlacement.h"
#include "resources/ResourceUse.h"
#include "resources/ResultCheck.h"

// What the conversions of one source to its several profiles share.

namespace runner {

// The source of a job as it was when the job began.
struct ProbedSource {
  SourceStamp stamp;
  KxMediaInfo info;
  SourceFacts facts;
};

// One child program of an attempt.
struct ChildStep {
  const char* name;  // for people: "encoder"
  std::function<int()> start;
  std::function<int()> percent;  // may be empty
  std::string log;               // of the child
  std::string output;            // of the child
};

// Starts a child, follows it, and tells what went wrong; empty when nothing did.
std::string runChild(JobRun& run, const ChildStep& step);

// Removes a path with all it holds when it goes.
class Cleanup {
 public:
  explicit Cleanup(std::function<std::string()> path) : m_path(std::move(path)) {}
  ~Cleanup();
  Cleanup(const Cleanup&) = delete;
  Cleanup& operator=(const Cleanup&) = delete;

 private:
  std::function<std::string()> m_path;
};

// Why a source has no track of a number, for people. @param kind "video" or "audio"
std::string missingTrack(const char* kind, int track, int count);

// Arguments that a source's kind asks of every encoder that reads it.
std::vector<std::string> sourceArguments(const KxMediaInfo& info);

// True for sound whose packets may hold several frames each, as phones write them. The encoder
// decodes only the first one, so such sound has to be unpacked for it.
bool isPackedSound(const KxStream& audio);
// Arguments that make the service's encoder unpack the sound of a source where that is needed.
std::vector<std::string> soundArguments(const std::string& path, KxMediaInfo& info, int track);

// Judges a result against the source that it was made from.
std::string faultOfResult(JobRun& run, const ProbedSource& source, const ExpectedResult& expected,
                          const std::string& result);
// Why a finished result must not be put in place after all: the source is another by now.
std::string faultOfSourceNow(const JobRun& run, const ProbedSource& source);

}  // namespace runner
