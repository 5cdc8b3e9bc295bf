#pragma once

#include <functional>
#include <string>

#include "KxTranscoder.h"
#include "resources/Conversion.h"

namespace runner {

// What the conversions of one video to its profiles share. Refers to what the job owns.
struct VideoContext {
  JobRun& run;
  ProbedSource& source;
  const ExpectedResult& expected;
  const OutputFolder& visible;
  const OutputFolder& links;
  const OutputFolder& temp;
  const std::string& subtitle;
};

// Parameters of one video profile of a job. The result's name is left to the caller.
// @param subtitle external subtitle to burn in, may be empty
TranscodeParam videoParam(const KxDBTaskParam& job, const TransConfigEntry& config,
                          KxMediaInfo& info, const std::string& subtitle);

// Details of the registrations of a video's conversions.
KxRegInfo videoRegistration(const VideoContext& video);

// One profile of a video from its source to its place, step by step; who runs the encoder
// decides. Results of functions that return text tell what is wrong, empty when nothing is.
// What is not put in place is removed with the object.
class VideoProfile {
 public:
  // Of what the context refers to, everything outlives this object.
  VideoProfile(const VideoContext& video, const TransConfigEntry& config);
  VideoProfile(const VideoProfile&) = delete;
  VideoProfile& operator=(const VideoProfile&) = delete;

  // Why the profile can never be made.
  std::string obstacle() const;
  // True when its result is there already, made from this very source.
  bool isInPlace();
  // Sets up the transcoder, once.
  std::string open();
  KxTranscoder& transcoder() { return m_transcoder; }
  // Where the encoder writes.
  TemporaryFile& file() { return m_file; }
  // Completes what an encoder wrote, and checks it.
  std::string finish();
  // The same for what was joined from pieces, which has its index at the end.
  std::string finishJoined();
  // Puts a finished result in place.
  std::string put();

 private:
  std::string remux(const std::function<int()>& start);
  std::string stripRotation();
  std::string putIndexInFront();
  std::string check();

  const VideoContext m_video;
  const TransConfigEntry& m_config;
  VideoPlacement m_placement;
  TemporaryFile m_file;
  KxTranscoder m_transcoder;
  Cleanup m_cleanup;
};

}  // namespace runner
