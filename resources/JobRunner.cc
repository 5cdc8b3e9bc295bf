#include <exception>

#include "KxResMgr2.h"
#include "KxTranscodeUnit2.h"
#include "frame/StopSignal.h"
#include "resources/Checkpoint.h"
#include "resources/JobRecord.h"
#include "resources/JobRun.h"
#include "resources/PdfJob.h"
#include "resources/RunnerLog.h"
#include "resources/VideoJob.h"

namespace runner {
namespace {

// Leaves the unit on every path.
class UnitVisit {
 public:
  explicit UnitVisit(KxTranscodeUnit2& unit) : m_unit(unit), m_run(unit.beginRun()) {}
  ~UnitVisit() { m_unit.leave(m_run.generation); }
  UnitVisit(const UnitVisit&) = delete;
  UnitVisit& operator=(const UnitVisit&) = delete;

  const KxUnitRun& run() const { return m_run; }
  KxUnitState_e waitForTurn() { return m_unit.waitForTurn(m_run.generation); }

 private:
  KxTranscodeUnit2& m_unit;
  KxUnitRun m_run;
};

bool convert(JobRun& run) {
  if (isPdf(run.source().name)) return PdfJob(run).run();
  return VideoJob(run).run();
}

// Nothing may leave the thread but its return value.
bool convertSafely(JobRun& run) {
  try {
    return convert(run);
  } catch (const std::exception& error) {
    return run.fail(std::string("internal error: ") + error.what());
  }
}

void runJob(KxTranscodeUnit2& unit, UnitVisit& visit) {
  if (visit.run().task.isEmpty) {
    KX_RUNNER_LOG("DBTask is empty\n");
    return;
  }
  JobRun run(unit, visit.run());
  const StopSignal stop(run.endFd());
  KxResMgr2::getInstance()->cGroupAddSelfThread();
  bool succeeded = false;
  if (visit.waitForTurn() == UNIT_START) {
    forgetReason(run);
    succeeded = convertSafely(run);
    if (!succeeded && !run.mustEnd()) {
      KX_RUNNER_LOG_LEVEL(2, "job %ld of %s failed: %s\n", static_cast<long>(run.job().id),
                          run.job().src.c_str(), run.reason().c_str());
    }
  }
  const KxUnitState_e state = run.state();
  // A job that was stopped or suspended goes on from there.
  if (state == UNIT_START) removeCheckpoints(run.job().id);
  writeOutcome(run, state, succeeded);
}

}  // namespace
}  // namespace runner

void* unitBGTranscodeThread(void* arg) {
  auto* unit = static_cast<KxTranscodeUnit2*>(arg);
  if (unit == nullptr) {
    KX_RUNNER_LOG("no KxTranscodeUnit object\n");
    return nullptr;
  }
  runner::UnitVisit visit(*unit);
  runner::runJob(*unit, visit);
  return nullptr;
}
