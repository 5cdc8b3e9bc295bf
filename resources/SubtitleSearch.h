#pragma once

#include <string>

// Looks beside a video for a subtitle file: the video's name with its extension replaced by
// one of those that the service accepts.
// @param folder the video's folder, with trailing "/"
// @return the subtitle's path; empty when there is none
std::string findVideoSubtitle(const std::string& folder, const std::string& name);
