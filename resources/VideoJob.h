#pragma once

#include <string>

#include "KxTranscoder.h"
#include "resources/Conversion.h"

namespace runner {

// Turns a source into the profiles that its job selects, one after the other.
class VideoJob {
 public:
  explicit VideoJob(JobRun& run) : m_run(run) {}
  // @return false when a profile failed or the run had to end; the run knows why
  bool run();

 private:
  bool openFolders();
  bool probe();
  bool probeDiscImage();
  bool chooseSubtitle();
  bool convertSelected();
  bool convertRow(const TransConfigEntry& config);
  bool convertVideo(const TransConfigEntry& config);
  std::string encode(const TransConfigEntry& config, TemporaryFile& file);
  Attempt encodeOn(KxResource2& resource, KxTranscoder& transcoder, TemporaryFile& file);
  std::string remux(KxTranscoder& transcoder, TemporaryFile& file);

  JobRun& m_run;
  ProbedSource m_source;
  OutputFolder m_links;
  OutputFolder m_visible;
  OutputFolder m_temp;
  std::string m_subtitle;
  ExpectedResult m_expected;
};

// Parameters of one video profile of a job. The result's name is left to the caller.
// @param subtitle external subtitle to burn in, may be empty
TranscodeParam videoParam(const KxDBTaskParam& job, const TransConfigEntry& config,
                          KxMediaInfo& info, const std::string& subtitle);

}  // namespace runner
