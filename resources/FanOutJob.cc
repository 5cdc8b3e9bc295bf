#include "resources/FanOutJob.h"

#include "Misc.h"
#include "engines/SharedCommand.h"
#include "resources/RunnerLog.h"

namespace runner {
namespace {

constexpr size_t kFewest = 2;

}  // namespace

uint64_t FanOutJob::run() {
  if (!isWanted()) return 0;
  m_branches = collectBranches(m_video, m_done);
  if (m_branches.size() < kFewest) return m_done;
  std::vector<KxResource2> resources = resourcesToTry(2);
  // A card makes each profile faster than the CPU makes them together.
  if (resources.empty() || resources.front().resType != RES2_SW_CPU) return m_done;
  openBranches(m_branches);
  if (m_branches.size() >= kFewest && !m_video.run.mustEnd()) encode(resources.front());
  return m_done;
}

bool FanOutJob::isWanted() const {
  // Every transcoder mounts an image at a place of its own, so they would read different files.
  if (isDiscImage(m_video.run.job().src)) return false;
  return isTurnedOn("FANOUT") && selectedVideoRows(m_video.run.job().jobFlag).size() >= kFewest;
}

void FanOutJob::encode(KxResource2& cpu) {
  std::vector<KxResource2> only = {cpu};
  std::string resId;
  const Attempt result = attemptOnBest(
      m_video.run, only, videoRegistration(m_video), [this](KxResource2&) { return encodeAll(); },
      resId);
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
    m_done |= branch.bit();
  } else if (!m_video.run.mustEnd()) {
    KX_RUNNER_LOG_LEVEL(2, "%s of %s from the shared encoder: %s, we try it by itself\n",
                        branch.config().name.c_str(), m_video.run.job().src.c_str(), fault.c_str());
  }
}

}  // namespace runner
