#include "watch/EventRules.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

TEST(EventRules, EachKindOfEventAsksForOneAction) {
  EXPECT_EQ(actionOf(IN_CREATE | IN_ISDIR), EventAction::EnterFolder);
  EXPECT_EQ(actionOf(IN_MOVED_TO | IN_ISDIR), EventAction::EnterFolder);
  EXPECT_EQ(actionOf(IN_DELETE | IN_ISDIR), EventAction::LeaveFolder);
  EXPECT_EQ(actionOf(IN_MOVED_FROM | IN_ISDIR), EventAction::LeaveFolder);
  EXPECT_EQ(actionOf(IN_CLOSE_WRITE), EventAction::AddFile);
  EXPECT_EQ(actionOf(IN_MOVED_TO), EventAction::AddFile);
  EXPECT_EQ(actionOf(IN_DELETE), EventAction::LeaveFile);
  EXPECT_EQ(actionOf(IN_MOVED_FROM), EventAction::LeaveFile);
  EXPECT_EQ(actionOf(IN_CREATE), EventAction::LinkFile);
}

TEST(EventRules, EventsWithoutANameComeFirst) {
  EXPECT_EQ(actionOf(IN_Q_OVERFLOW), EventAction::Recover);
  EXPECT_EQ(actionOf(IN_Q_OVERFLOW | IN_ISDIR), EventAction::Recover);
  EXPECT_EQ(actionOf(IN_UNMOUNT), EventAction::LookAtRoots);
}

TEST(EventRules, EverythingElseIsIgnored) {
  EXPECT_EQ(actionOf(IN_MODIFY), EventAction::None);
  EXPECT_EQ(actionOf(IN_CLOSE_WRITE | IN_ISDIR), EventAction::None);
  EXPECT_EQ(actionOf(IN_IGNORED), EventAction::None);
  EXPECT_EQ(actionOf(0), EventAction::None);
}
