#include "daemon/WaitingRows.h"

#include "daemon/LibraryLocks.h"

namespace xcoded {
namespace {

constexpr int kFirstPage = 16;
constexpr int kLaterPage = 256;  // rows without room may stand in front by the thousand

std::vector<KxDBTask> waitingPage(int limit, int offset) {
  const KxDBGetJobParam query(1UL << JOB_WAITING, limit, "Priority", offset, true, -1, 0);
  StoreLock lock;
  return KxTransDBMgr::getInstance()->getDBJob(query);
}

}  // namespace

std::optional<KxDBTaskParam> WaitingRows::next() {
  if (m_rows.empty() && !m_atEnd) {
    const int limit = m_skipped == 0 ? kFirstPage : kLaterPage;
    for (KxDBTask& task : waitingPage(limit, m_skipped)) m_rows.push_back(std::move(task.param));
    m_atEnd = m_rows.empty();
  }
  if (m_rows.empty()) return std::nullopt;
  std::optional<KxDBTaskParam> job = std::move(m_rows.front());
  m_rows.pop_front();
  return job;
}

}  // namespace xcoded
