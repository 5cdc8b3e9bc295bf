#include "watch/WatchHealth.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

KxWatchStatus statusOf(const WatchHealth& health) {
  KxWatchStatus status;
  status.folders.push_back({KxTransFileSetting("/a", "4"), WATCH_OFF, 0});
  health.fill(status);
  return status;
}

}  // namespace

TEST(WatchHealth, KnowsHowWellEachFolderIsWatched) {
  WatchHealth health;
  EXPECT_EQ(health.stateOf("/a"), WATCH_OFF);
  health.set("/a", WATCH_PARTIAL, 28);
  health.set("/b", WATCH_ON);
  EXPECT_EQ(health.stateOf("/a"), WATCH_PARTIAL);
  EXPECT_EQ(statusOf(health).folders.at(0).state, WATCH_PARTIAL);
  EXPECT_EQ(statusOf(health).folders.at(0).error, 28);
  health.forgetStates();
  EXPECT_EQ(statusOf(health).folders.at(0).state, WATCH_OFF);
}

TEST(WatchHealth, LostEventsNeedAScanUntilOneHasEndedThatBeganLater) {
  WatchHealth health;
  EXPECT_FALSE(statusOf(health).needsScan);
  EXPECT_EQ(statusOf(health).lastLost, 0);
  EXPECT_TRUE(health.noteLoss());
  EXPECT_TRUE(statusOf(health).needsScan);
  EXPECT_EQ(statusOf(health).lostEvents, 1);
  EXPECT_NEAR(static_cast<double>(statusOf(health).lastLost), static_cast<double>(time(nullptr)),
              2);
  const int64_t first = health.beginRepair();
  EXPECT_TRUE(health.noteLoss()) << "lost after the scan had begun";
  health.endRepair(first);
  EXPECT_TRUE(statusOf(health).needsScan);
  health.endRepair(health.beginRepair());
  EXPECT_FALSE(statusOf(health).needsScan);
  EXPECT_EQ(statusOf(health).lostEvents, 2) << "that they were lost stays known";
}

TEST(WatchHealth, OneScanRepairsManyLossesUnlessItIsDropped) {
  WatchHealth health;
  EXPECT_TRUE(health.noteLoss());
  EXPECT_FALSE(health.noteLoss()) << "the scan is asked for";
  health.dropRepair();
  EXPECT_TRUE(statusOf(health).needsScan);
  EXPECT_TRUE(health.noteLoss());
}

TEST(WatchHealth, TheFolderThatIsScannedLongestIsNamed) {
  WatchHealth health;
  health.addScanning("/a");
  health.addScanning("/b");
  health.addScanning("/a");
  EXPECT_EQ(statusOf(health).scanning, "/a");
  health.removeScanning("/a");
  EXPECT_EQ(statusOf(health).scanning, "/b");
  health.removeScanning("/b");
  EXPECT_EQ(statusOf(health).scanning, "/a");
  health.removeScanning("/a");
  EXPECT_EQ(statusOf(health).scanning, "");
}
