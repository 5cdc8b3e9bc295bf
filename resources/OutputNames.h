#pragma once

#include <string>

// Names of what a job produces. Pure functions of the job; nothing is looked up on disk.

namespace runner {

// Folders below the source's folder, with trailing "/".
inline constexpr const char* kThumbFolder = ".@__thumb/";
inline constexpr const char* kLinkFolder = ".@__thumb/transcode/";
inline constexpr const char* kTempFolder = ".@__thumb/temp/";
inline constexpr const char* kVisibleFolder = "@Transcode/";
inline constexpr const char* kAudioFolder = "Video2audio/";

// A source path cut into its folder (with trailing "/") and its name. A disc folder may be
// written with trailing slashes; they belong to neither.
struct SourceName {
  std::string folder;
  std::string name;

  std::string path() const { return folder + name; }
};
SourceName splitSource(const std::string& path);

// Name without its extension; a leading dot starts no extension.
std::string withoutExtension(const std::string& name);
bool isPdf(const std::string& name);
bool isDiscImage(const std::string& name);

// The rotation that a job asks for: 90, 180 or 270 degrees, else 0.
int askedRotation(int rotation);

std::string visibleName(const std::string& name, const std::string& profile, int rotation);
std::string linkName(const std::string& name, const std::string& profile);
// What the link holds: the result, seen from the link's folder.
std::string linkTarget(const std::string& visible);
std::string audioName(const std::string& name);
// Folder of a PDF's pages, with trailing "/". @param destination of the job, may be empty
std::string pageFolder(const SourceName& source, const std::string& destination);

}  // namespace runner
