#pragma once

#include "resources/JobRun.h"

namespace runner {

// Renders the pages of a PDF.
class PdfJob {
 public:
  explicit PdfJob(JobRun& run) : m_run(run) {}
  bool run();

 private:
  JobRun& m_run;
};

}  // namespace runner
