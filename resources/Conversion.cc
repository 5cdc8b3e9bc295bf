#include "resources/Conversion.h"

#include "KxHostPlatform.h"
#include "engines/DiscTitle.h"
#include "resources/EncoderLog.h"
#include "resources/MediaTimes.h"

namespace runner {

std::string runChild(JobRun& run, const ChildStep& step) {
  const int pid = step.start();
  const std::string name = std::string("the ") + step.name;
  if (pid <= 0) return name + " could not be started";
  const ChildEnd end = followChild(run, pid, {step.percent, {step.log, step.output}});
  if (end.ok()) return "";
  const std::string line = complaintOf(step.log);
  return name + " " + end.text() + (line.empty() ? "" : ": " + line);
}

Cleanup::~Cleanup() {
  std::string path = m_path();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (!path.empty()) myremove(path.c_str());
}

std::string missingTrack(const char* kind, int track, int count) {
  std::string none = std::string("the source has no ") + kind;
  if (count <= 0) return none;
  return none + " track " + std::to_string(track) + ", its last one is " +
         std::to_string(count - 1);
}

std::vector<std::string> sourceArguments(const KxMediaInfo& info) {
  constexpr int32_t kDvdFolder = 1;
  if (info.m_mediaType != kDvdFolder) return {};
  return engines::dvdReadingOptions();
}

bool isPackedSound(const KxStream& audio) {
  constexpr int32_t kAmrNarrowBand = 73728;
  constexpr int32_t kAmrWideBand = 73729;
  return !audio.m_isEmpty && (audio.m_codecId == kAmrNarrowBand || audio.m_codecId == kAmrWideBand);
}

std::vector<std::string> soundArguments(const std::string& path, KxMediaInfo& info, int track) {
  if (!isPackedSound(info.getAudioTrack(track))) return {};
  const auto times = readTimes(path, false);
  const StreamTimes* sound = times ? times->find(StreamTimes::Kind::Audio, track) : nullptr;
  return {"-unpack_sound", std::to_string(sound == nullptr ? 0 : sound->start)};
}

std::string faultOfResult(JobRun& run, const ProbedSource& source, const ExpectedResult& expected,
                          const std::string& result) {
  return resultFault(result, source.facts, expected, [&run] { return !run.mustEnd(); });
}

std::string faultOfSourceNow(const JobRun& run, const ProbedSource& source) {
  const auto now = stampOf(run.job().src);
  return now && *now == source.stamp ? "" : "the source was changed meanwhile";
}

}  // namespace runner
