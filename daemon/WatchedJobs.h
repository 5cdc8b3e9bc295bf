#pragma once

#include <vector>

#include "KxDBTask.h"
#include "daemon/SourceSettle.h"

namespace xcoded {

// Decides about waiting jobs of watched folders, whose sources may still be on their way: such
// a job starts when its source is complete, once for each state of the source. Used by the
// thread that starts jobs; takes the locks it needs.
class WatchedJobs {
 public:
  enum class Verdict {
    Start,
    Wait,     // the row keeps waiting
    Renewed,  // the row is gone: a row for the source as it is now waits in its place
  };
  struct Judgement {
    Verdict verdict;
    const char* waitsFor = "";  // with Verdict::Wait: what the job waits for, for its owner
  };

  explicit WatchedJobs(std::chrono::seconds settleTime) : m_settle(settleTime) {}

  void beginRound() { m_settle.beginRound(); }
  // @param units the jobs that have a unit
  Judgement judge(const KxDBTaskParam& job, const std::vector<KxDBTaskParam>& units);
  // When a job that waits for its source may have to be looked at again.
  std::optional<SourceSettle::Clock::time_point> nextLook() const { return m_settle.nextLook(); }

 private:
  SourceSettle m_settle;
};

}  // namespace xcoded
