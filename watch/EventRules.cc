#include "watch/EventRules.h"

#include <sys/inotify.h>

namespace {

struct Rule {
  uint32_t bits;
  bool isFolder;
  EventAction action;
};

// The first that fits counts.
constexpr Rule kRules[] = {
    {IN_CREATE | IN_MOVED_TO, true, EventAction::EnterFolder},
    {IN_DELETE | IN_MOVED_FROM, true, EventAction::LeaveFolder},
    {IN_CLOSE_WRITE | IN_MOVED_TO, false, EventAction::AddFile},
    {IN_DELETE | IN_MOVED_FROM, false, EventAction::LeaveFile},
    {IN_CREATE, false, EventAction::LinkFile},
};

}  // namespace

EventAction actionOf(uint32_t mask) {
  // These two come without a name.
  if ((mask & IN_Q_OVERFLOW) != 0) return EventAction::Recover;
  if ((mask & IN_UNMOUNT) != 0) return EventAction::LookAtRoots;
  const bool isFolder = (mask & IN_ISDIR) != 0;
  for (const Rule& rule : kRules)
    if (rule.isFolder == isFolder && (mask & rule.bits) != 0) return rule.action;
  return EventAction::None;
}
