#include <gtest/gtest.h>

#include "KxAbstractTranscodeSvr.h"
#include "KxTranscodeUnit2.h"
#include "daemon/Scheduler.h"

using namespace xcoded;

namespace {

constexpr int64_t kPlenty = int64_t{64} << 20;  // kilobytes
constexpr int64_t kMega = int64_t{1} << 20;

SchedulerState idle(int maxUnits) {
  SchedulerState state;
  state.svrStatus = SVR_RUNNING;
  state.maxUnits = maxUnits;
  state.availableKb = kPlenty;
  return state;
}

KxDBTaskParam job(const std::string& src, uint64_t flags, int64_t bytes, int seconds) {
  KxDBTaskParam result;
  result.src = src;
  result.jobFlag = flags;
  result.fileSize = bytes;
  result.duration = seconds;
  return result;
}

}  // namespace

TEST(Scheduler, UnitsFillUpToTheLimit) {
  SchedulerState state = idle(3);
  EXPECT_EQ(freeSlots(state), 3);
  state.activeUnits = 2;
  EXPECT_EQ(freeSlots(state), 1);
  state.activeUnits = 3;
  EXPECT_EQ(freeSlots(state), 0);
  state.activeUnits = 5;
  EXPECT_EQ(freeSlots(state), 0);
}

TEST(Scheduler, NothingStartsWhileStoppedPausedOrFull) {
  for (const int status : {SVR_NONE, SVR_STOPPED, SVR_PAUSED}) {
    SchedulerState state = idle(3);
    state.svrStatus = status;
    EXPECT_EQ(freeSlots(state), 0) << status;
  }
  SchedulerState state = idle(3);
  state.diskFull = true;
  EXPECT_EQ(freeSlots(state), 0);
}

TEST(Scheduler, EachUnitBeyondTheFirstNeedsMemory) {
  SchedulerState state = idle(4);
  state.availableKb = 0;
  EXPECT_EQ(freeSlots(state), 1) << "the first always runs";
  state.availableKb = 2 * kUnitMemoryKb;
  EXPECT_EQ(freeSlots(state), 2);
  state.activeUnits = 1;
  state.availableKb = kUnitMemoryKb - 1;
  EXPECT_EQ(freeSlots(state), 0);
  state.availableKb = kUnitMemoryKb;
  EXPECT_EQ(freeSlots(state), 1);
}

TEST(Scheduler, MemoryOfUnitsJustStartedIsNotGivenAwayAgain) {
  SchedulerState state = idle(4);
  state.activeUnits = 2;
  state.youngUnits = 2;
  state.availableKb = 3 * kUnitMemoryKb;
  EXPECT_EQ(freeSlots(state), 1);
}

TEST(Scheduler, UnitsByDefaultFollowTheMachine) {
  EXPECT_EQ(defaultMaxUnits(1, 0), 1);
  EXPECT_EQ(defaultMaxUnits(2, 0), 2);
  EXPECT_EQ(defaultMaxUnits(5, 0), 2);
  EXPECT_EQ(defaultMaxUnits(6, 0), 3);
  EXPECT_EQ(defaultMaxUnits(10, 0), 4);
  EXPECT_EQ(defaultMaxUnits(2, 1), 3);
}

TEST(Scheduler, RoomGrowsWithProfilesAndLength) {
  const int64_t one = estimateRoom(job("/a", 1, 100 * kMega, 600));
  EXPECT_GT(estimateRoom(job("/a", 3, 100 * kMega, 600)), one);
  EXPECT_GT(estimateRoom(job("/a", 1, 100 * kMega, 1200)), one);
  // A profile that keeps the picture, and a source of unknown length, need the source's size.
  EXPECT_GE(estimateRoom(job("/a", 32, 100 * kMega, 600)), 200 * kMega);
  EXPECT_GE(estimateRoom(job("/a", 1, 100 * kMega, 0)), 200 * kMega);
}

TEST(Scheduler, TheEstimateCoversAllProfilesAtATime) {
  // As one encoder writes them: all of them are there before the first is put in place.
  int64_t sum = 0;
  for (const uint64_t profile : {1U, 2U, 4U, 8U}) {
    // Alone, a profile counts twice, and the spare of 64 MB once.
    sum += (estimateRoom(job("/a", profile, 100 * kMega, 600)) - 64 * kMega) / 2;
  }
  EXPECT_GE(estimateRoom(job("/a", 15, 100 * kMega, 600)), sum);
}

TEST(Scheduler, OnlyLongVideosNeedRoomForPieces) {
  EXPECT_EQ(kxJobRoom(job("/a", 1, 100 * kMega, 1199)).pieces, 0);
  EXPECT_EQ(kxJobRoom(job("/a", 64, 100 * kMega, 1200)).pieces, 0) << "sound is not cut";
  EXPECT_GT(kxJobRoom(job("/a", 1, 100 * kMega, 1200)).pieces, 200 * kMega);
  EXPECT_GT(kxJobRoom(job("/a", 15, 100 * kMega, 1200)).pieces,
            kxJobRoom(job("/a", 1, 100 * kMega, 1200)).pieces);
}

TEST(Scheduler, RoomForPiecesIsSetAsideWhereTheyGo) {
  const KxDBTaskParam film = job("/one/a", 1, 100 * kMega, 1200);
  const KxJobRoom room = kxJobRoom(film);
  const auto volumes = [&](int64_t atWork) {
    return RoomLedger(
        [&](const std::string&) {
          return Volume{1, 10 * room.beside};
        },
        [atWork] {
          return Volume{2, atWork};
        });
  };
  RoomLedger narrow = volumes(room.pieces / 2);
  EXPECT_TRUE(narrow.reserve(film)) << "it goes whole";
  // On one volume the second job finds what the first one leaves.
  const int64_t both = room.beside + room.pieces;
  RoomLedger one(
      [&](const std::string&) {
        return Volume{1, both + room.beside - 1};
      },
      [&] {
        return Volume{1, 0};
      });
  EXPECT_TRUE(one.reserve(film));
  EXPECT_FALSE(one.reserve(film));
  RoomLedger whole([&](const std::string&) { return Volume{1, both + room.beside - 1}; });
  EXPECT_TRUE(whole.reserve(film));
  EXPECT_EQ(whole.reserve(film), room.pieces > 0);
}

TEST(Scheduler, JobsThatStartTogetherDoNotCountOnTheSameRoom) {
  const KxDBTaskParam first = job("/one/a", 32, 100 * kMega, 60);
  const int64_t needed = estimateRoom(first);
  RoomLedger ledger([&](const std::string& src) -> std::optional<Volume> {
    if (src.rfind("/one/", 0) == 0) return Volume{1, needed + needed / 2};
    if (src.rfind("/two/", 0) == 0) return Volume{2, needed};
    return std::nullopt;
  });
  EXPECT_TRUE(ledger.reserve(first));
  EXPECT_FALSE(ledger.reserve(first)) << "only half the room is left on its volume";
  EXPECT_TRUE(ledger.reserve(job("/two/a", 32, 100 * kMega, 60))) << "another volume";
  EXPECT_TRUE(ledger.reserve(job("/gone/a", 32, 100 * kMega, 60))) << "it fails by itself";
}
