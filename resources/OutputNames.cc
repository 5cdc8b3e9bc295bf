#include "resources/OutputNames.h"

#include <strings.h>

#include "KxTranscodeUnit2.h"
#include "KxTranscoder.h"

namespace runner {
namespace {

bool endsWith(const std::string& name, const std::string& suffix) {
  return name.size() >= suffix.size() &&
         strcasecmp(name.c_str() + (name.size() - suffix.size()), suffix.c_str()) == 0;
}

KxJobOutput audioOutput(const SourceName& source, const std::string& profile) {
  return {profile, source.folder + kAudioFolder + audioName(source.name), ""};
}

KxJobOutput videoOutput(const SourceName& source, const std::string& profile, int rotation) {
  return {profile, source.folder + kVisibleFolder + visibleName(source.name, profile, rotation),
          source.folder + kLinkFolder + linkName(source.name, profile)};
}

}  // namespace

SourceName splitSource(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  const size_t slash = trimmed.rfind('/');
  if (slash == std::string::npos) return {"./", trimmed};
  return {trimmed.substr(0, slash + 1), trimmed.substr(slash + 1)};
}

std::string withoutExtension(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

bool isPdf(const std::string& name) {
  return endsWith(name, ".pdf");
}

bool isDiscImage(const std::string& name) {
  return endsWith(name, ".iso");
}

int askedRotation(int rotation) {
  return rotation == 90 || rotation == 180 || rotation == 270 ? rotation : 0;
}

std::string visibleName(const std::string& name, const std::string& profile, int rotation) {
  const std::string turned = rotation == 0 ? "" : "." + std::to_string(rotation);
  return name + "." + profile + turned + ".mp4";
}

std::string linkName(const std::string& name, const std::string& profile) {
  return name + "." + profile;
}

std::string linkTarget(const std::string& visible) {
  return std::string("../../") + kVisibleFolder + visible;
}

std::string audioName(const std::string& name) {
  return withoutExtension(name) + ".mp3";
}

std::string pageFolder(const SourceName& source, const std::string& destination) {
  std::string base = destination.empty() ? source.path() : destination;
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  return base + ".album/";
}

}  // namespace runner

std::vector<KxJobOutput> kxJobOutputs(const KxDBTaskParam& job) {
  const runner::SourceName source = runner::splitSource(job.src);
  if (runner::isPdf(source.name)) return {{"pdf", runner::pageFolder(source, job.dst), ""}};
  std::vector<KxJobOutput> outputs;
  for (size_t row = 0; gTransConfig[row].key != 0; ++row) {
    if ((job.jobFlag >> row & 1) == 0) continue;
    const TransConfigEntry& config = gTransConfig[row];
    const bool isAudio = config.formatId == KX_FORMAT_AUDIO;
    outputs.push_back(
        isAudio ? runner::audioOutput(source, config.name)
                : runner::videoOutput(source, config.name, runner::askedRotation(job.rotation)));
  }
  return outputs;
}
