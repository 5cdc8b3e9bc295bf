#include "resources/FanOutJob.h"

#include <algorithm>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "engines/SharedCommand.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

constexpr size_t kFewest = 2;

bool isTurnedOn() {
  const std::string file = miscSystemPath("/etc/config/medialibrary.conf");
  return MyUtil_GetKeyInt("TRANSCODESVR", "FANOUT", 0, file.c_str()) == 1;
}

std::vector<int> selectedVideoRows(uint64_t flags) {
  std::vector<int> rows;
  for (int row = 0; gTransConfig[row].key != 0; ++row) {
    if ((flags >> row & 1) != 0 && gTransConfig[row].formatId != KX_FORMAT_AUDIO)
      rows.push_back(row);
  }
  return rows;
}

}  // namespace

uint64_t FanOutJob::run() {
  if (!isWanted()) return 0;
  collect();
  if (m_branches.size() < kFewest) return m_done;
  std::vector<KxResource2> resources = resourcesToTry(2);
  // A card makes each profile faster than the CPU makes them together.
  if (resources.empty() || resources.front().resType != RES2_SW_CPU) return m_done;
  openAll();
  if (m_branches.size() >= kFewest && !m_video.run.mustEnd()) encode(resources.front());
  return m_done;
}

bool FanOutJob::isWanted() const {
  // Every transcoder mounts an image at a place of its own, so they would read different files.
  if (isDiscImage(m_video.run.job().src)) return false;
  return isTurnedOn() && selectedVideoRows(m_video.run.job().jobFlag).size() >= kFewest;
}

void FanOutJob::collect() {
  for (const int row : selectedVideoRows(m_video.run.job().jobFlag)) {
    auto profile = std::make_unique<VideoProfile>(m_video, gTransConfig[row]);
    if (!profile->obstacle().empty()) continue;
    if (profile->isInPlace()) {
      m_done |= uint64_t{1} << row;
    } else {
      m_branches.push_back({row, std::move(profile), {}});
    }
  }
}

void FanOutJob::openAll() {
  std::erase_if(m_branches, [](Branch& branch) {
    if (!branch.profile->open().empty()) return true;
    branch.command = branch.profile->transcoder().getSWCommand();
    return branch.command.empty();
  });
}

void FanOutJob::encode(KxResource2& cpu) {
  const Attempt result = attemptOn(m_video.run, cpu, videoRegistration(m_video),
                                   [this](KxResource2&) { return encodeAll(); });
  if (result.ok || m_video.run.mustEnd()) return;
  KX_RUNNER_LOG_LEVEL(2, "one encoder for %zu profiles of %s: %s, we try each by itself\n",
                      m_branches.size(), m_video.run.job().src.c_str(), result.fault.c_str());
}

Attempt FanOutJob::encodeAll() {
  std::vector<std::vector<std::string>> commands;
  for (const Branch& branch : m_branches) commands.push_back(branch.command);
  const std::vector<std::string> command = engines::sharedCommand(commands);
  if (command.empty()) return {false, "they read the source differently"};
  VideoProfile& first = *m_branches.front().profile;
  const std::string log = first.transcoder().getProgressLogPath();
  m_video.run.showProgress(0);
  std::string fault = runChild(
      m_video.run, {"encoder", [&] { return miscLaunchCmdNoWait(command, log); },
                    [&] { return first.transcoder().getProgress(); }, log, first.file().path()});
  if (!fault.empty()) return {false, fault};
  for (Branch& branch : m_branches) finish(branch);
  return {true, ""};
}

void FanOutJob::finish(Branch& branch) {
  std::string fault = branch.profile->finish();
  if (fault.empty()) fault = branch.profile->put();
  if (fault.empty()) {
    m_done |= uint64_t{1} << branch.row;
  } else if (!m_video.run.mustEnd()) {
    KX_RUNNER_LOG_LEVEL(2, "%s of %s from the shared encoder: %s, we try it by itself\n",
                        gTransConfig[branch.row].name.c_str(), m_video.run.job().src.c_str(),
                        fault.c_str());
  }
}

}  // namespace runner
