#pragma once

#include <ctime>
#include <string>

#include "KxTranscodeUnit2.h"
#include "resources/OutputNames.h"

namespace runner {

// One run of one job as its steps see it: the job, what the unit shows to others, whether the
// run has to end, and why the job failed. Used by the runner's thread alone.
class JobRun {
 public:
  // @param run as KxTranscodeUnit2::beginRun() gave it; the unit outlives this object
  JobRun(KxTranscodeUnit2& unit, const KxUnitRun& run);

  const KxDBTask& task() const { return m_run.task; }
  const KxDBTaskParam& job() const { return m_run.task.param; }
  const SourceName& source() const { return m_source; }
  time_t startTime() const { return m_startTime; }

  KxUnitState_e state() const { return m_unit.stateFor(m_run.generation); }
  bool mustEnd() const { return state() != UNIT_START; }
  // Readable as soon as the run has to end; -1 when there is none.
  int endFd() const { return m_run.endFd; }

  void showRegistration(const KxRegister& reg) { m_unit.setReg(m_run.generation, reg); }
  void showPid(int pid) { m_unit.setPid(m_run.generation, pid); }
  void showProgress(int percent) { m_unit.setProgress(m_run.generation, percent); }

  // Keeps why a step failed. @return false, so that a step can return it
  bool fail(const std::string& reason);
  const std::string& reason() const { return m_reason; }
  // Keeps what people should know of a step that came to a good end in the end.
  void remark(const std::string& text);
  const std::string& remarks() const { return m_remarks; }

 private:
  KxTranscodeUnit2& m_unit;
  KxUnitRun m_run;
  SourceName m_source;
  time_t m_startTime;
  std::string m_reason;
  std::string m_remarks;
};

// One line of printable text, cut to a length that people read.
std::string oneLine(const std::string& text);

}  // namespace runner
