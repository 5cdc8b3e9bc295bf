#include "resources/JobRun.h"

#include <algorithm>

namespace runner {
namespace {

constexpr size_t kReasonLength = 600;

bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

}  // namespace

JobRun::JobRun(KxTranscodeUnit2& unit, const KxUnitRun& run)
    : m_unit(unit), m_run(run), m_source(splitSource(run.task.param.src)),
      m_startTime(time(nullptr)) {}

bool JobRun::fail(const std::string& reason) {
  m_reason = oneLine(m_reason.empty() ? reason : m_reason + "; " + reason);
  return false;
}

void JobRun::remark(const std::string& text) {
  if (m_remarks.find(text) != std::string::npos) return;
  m_remarks = oneLine(m_remarks.empty() ? text : m_remarks + "; " + text);
}

std::string oneLine(const std::string& text) {
  std::string line = text;
  std::ranges::replace_if(
      line, [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f; }, ' ');
  if (line.size() <= kReasonLength) return line;
  size_t end = kReasonLength;
  while (end > 0 && isContinuation(line[end])) --end;
  return line.substr(0, end) + "...";
}

}  // namespace runner
