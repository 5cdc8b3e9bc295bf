#pragma once

#include "KxMusicTranscoder.h"
#include "KxTranscoder.h"
#include "resources/Conversion.h"

namespace runner {

// Takes the sound out of a video.
class AudioJob {
 public:
  // @param temporary folder for work files, on the source's volume
  AudioJob(JobRun& run, ProbedSource& source, const OutputFolder& temporary)
      : m_run(run), m_source(source), m_temp(temporary) {}
  // @return false when it failed or the run had to end; the run knows why
  bool run(const TransConfigEntry& config);

 private:
  std::string convert(const TransConfigEntry& config, const AudioPlacement& placement);
  std::string encode(const TransConfigEntry& config, TemporaryFile& file);
  Attempt encodeOn(KxResource2& resource, KxMusicTranscoder& transcoder, TemporaryFile& file);

  JobRun& m_run;
  ProbedSource& m_source;
  const OutputFolder& m_temp;
  ExpectedResult m_expected;
};

// Parameters of the audio profile of a job. The result's name is left to the caller.
MusicTranscodeParam audioParam(const KxDBTaskParam& job, const TransConfigEntry& config);

}  // namespace runner
