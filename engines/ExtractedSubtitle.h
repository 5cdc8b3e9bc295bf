#pragma once

#include <functional>
#include <string>

#include "KxTranscoder.h"

namespace engines {

// Where the text of an embedded subtitle stream of a video is kept.
std::string extractedSubtitlePath(const std::string& video, int subtitleId);

// How the outside program that extracts a subtitle is run.
struct Extraction {
  std::string log;                   // receives its messages
  std::function<int(int pid)> wait;  // waits for it, 0 when it did its work
};

// Extracts the chosen subtitle stream unless that was done before, and makes it the job's
// subtitle file when the job names none. 0 on success and when nothing is to be done or
// there is no extractor; 1 when the extractor fails. Logged as "init".
int prepareSubtitle(TranscodeParam& param, const Extraction& how);

}  // namespace engines
