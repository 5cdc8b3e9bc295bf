#pragma once

#include <string>
#include <vector>

#include "resources/JobRun.h"
#include "resources/OutputPlacement.h"

namespace runner {

// Renders the pages of a PDF as pictures into a folder and makes them known to the media
// library.
class PdfJob {
 public:
  explicit PdfJob(JobRun& run);
  // @return false when it failed or the run had to end; the run knows why
  bool run();

 private:
  bool openFolder();
  bool countPages();
  bool workOnCpu();
  bool render();
  std::string runRenderer();
  std::vector<std::string> command() const;
  void handleOutput(std::string& buffered);
  void noteComplaint(const std::string& line);
  bool publishPages();
  bool publishPage(int page);
  void discardPages();
  std::string pageName(int page) const;

  JobRun& m_run;
  std::string m_pagePath;  // with trailing "/"
  std::string m_scratch;
  std::string m_complaint;  // of the renderer
  OutputFolder m_pages;
  bool m_isNewFolder = false;
  bool m_hasRendered = false;
  bool m_libraryAnswers = true;
  int m_pageCount = 0;
};

}  // namespace runner
