#pragma once

#include <deque>
#include <optional>

#include "KxDBTask.h"

namespace xcoded {

// Walks the waiting jobs by priority (lower first), then rank, a few rows at a time, so that
// a long queue costs no memory. The caller either makes a job stop waiting or skips it. Takes
// the job store's lock by itself, for one page.
class WaitingRows {
 public:
  // The next waiting job; nothing at the end of the queue.
  std::optional<KxDBTaskParam> next();
  // The job just handed out keeps waiting: later pages are read behind it.
  void skip() { ++m_skipped; }
  int skipped() const { return m_skipped; }

 private:
  std::deque<KxDBTaskParam> m_rows;
  int m_skipped = 0;
  bool m_atEnd = false;
};

}  // namespace xcoded
