#pragma once

#include <optional>
#include <string>

#include "engines/DiscSource.h"
#include "resources/VideoProfile.h"

namespace runner {

// Turns a source into the profiles that its job selects, together where
// that may be, else one after the other.
class VideoJob {
 public:
  explicit VideoJob(JobRun& run) : m_run(run) {}
  // @return false when a profile failed or the run had to end; the run knows why
  bool run();

 private:
  bool openFolders();
  bool probe();
  bool openDisc();
  bool chooseTracks();
  bool chooseSubtitle();
  bool convertSubtitle();
  bool convertSelected();
  bool convertRow(const TransConfigEntry& config);
  bool convertVideo(const TransConfigEntry& config);
  Attempt encodeOn(KxResource2& resource, VideoProfile& profile);
  VideoContext context();

  JobRun& m_run;
  engines::DiscSource m_disc;  // keeps what m_source tells of a disc readable
  ProbedSource m_source;
  OutputFolder m_links;
  OutputFolder m_visible;
  OutputFolder m_temp;
  std::string m_subtitle;
  std::optional<TemporaryFile> m_subtitleText;  // when the subtitle had to be converted
  ExpectedResult m_expected;
};

}  // namespace runner
