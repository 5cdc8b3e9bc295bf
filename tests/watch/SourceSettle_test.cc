#include "daemon/SourceSettle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "KxTransDBMgr.h"
#include "daemon/WatchedJobs.h"
#include "frame/UniqueFd.h"
#include "tests/watch/WatchWorld.h"

using kxtest::waitUntil;
using namespace std::chrono_literals;
using xcoded::hasWriter;
using xcoded::SourceSettle;
using xcoded::WatchedJobs;
using Verdict = WatchedJobs::Verdict;

namespace {

class SettleTest : public WatchWorld {
 protected:
  // Asks in rounds until a file is complete.
  bool becomesComplete(SourceSettle& settle, const std::string& path) {
    return waitUntil([&] {
      settle.beginRound();
      return settle.isComplete(path);
    });
  }
  KxDBTaskParam queue(const std::string& path, uint64_t profiles) {
    const StoreGuard lock;
    KxDBTaskParam job;
    job.src = path;
    job.jobFlag = profiles;
    EXPECT_EQ(store->addDBJob(job), 0);
    return store->getDBJobBySource(path).back().param;
  }
  static WatchedJobs::Verdict judge(WatchedJobs& watched, const KxDBTaskParam& job,
                                    const std::vector<KxDBTaskParam>& units = {}) {
    watched.beginRound();
    return watched.judge(job, units).verdict;
  }
};

}  // namespace

TEST_F(SettleTest, AWriterIsSeenHoweverTheFileIsOpen) {
  const std::string path = video("a.mp4");
  EXPECT_FALSE(hasWriter(path));
  for (const int flags : {O_WRONLY, O_RDWR, O_WRONLY | O_APPEND}) {
    UniqueFd writer(open(path.c_str(), flags | O_CLOEXEC));
    EXPECT_TRUE(hasWriter(path));
    writer.reset();
    EXPECT_FALSE(hasWriter(path));
  }
  const UniqueFd reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(hasWriter(path));
  UniqueFd mapped(open(path.c_str(), O_RDWR | O_CLOEXEC));
  void* memory = mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED, mapped.get(), 0);
  mapped.reset();
  EXPECT_TRUE(hasWriter(path)) << "a mapping writes too";
  munmap(memory, 8);
  EXPECT_FALSE(hasWriter(path));
  EXPECT_FALSE(hasWriter(media("absent")));
}

TEST_F(SettleTest, WritersThatComeWhileTheQuestionIsAskedDoNoHarm) {
  const std::string path = video("a.mp4");
  std::atomic<bool> isEnough{false};
  std::thread writer([&] {
    while (!isEnough) UniqueFd(open(path.c_str(), O_WRONLY | O_CLOEXEC)).reset();
  });
  for (int i = 0; i < 3000; ++i) hasWriter(path);
  isEnough = true;
  writer.join();
}

TEST_F(SettleTest, AFileIsCompleteWhenItHasBeenAtRest) {
  SourceSettle settle(1s);
  const std::string path = video("a.mp4");
  const auto start = SourceSettle::Clock::now();
  settle.beginRound();
  EXPECT_FALSE(settle.isComplete(path));
  ASSERT_TRUE(settle.nextLook());
  EXPECT_GT(*settle.nextLook(), start);
  EXPECT_LE(*settle.nextLook(), SourceSettle::Clock::now() + 1s);
  EXPECT_TRUE(becomesComplete(settle, path));
  EXPECT_GE(SourceSettle::Clock::now() - start, 900ms);
  EXPECT_FALSE(settle.nextLook());
  // One that has long been there does not wait, whoever asks for the first time.
  SourceSettle other(1s);
  other.beginRound();
  EXPECT_TRUE(other.isComplete(path));
}

TEST_F(SettleTest, ATimeThatIsSetBackDoesNotMakeAFileOld) {
  SourceSettle settle(2s);
  const std::string path = video("a.mp4");
  setTime(path, 1000);
  settle.beginRound();
  EXPECT_FALSE(settle.isComplete(path));
}

TEST_F(SettleTest, AWriterKeepsAFileFromBeingComplete) {
  SourceSettle settle(1s);
  const std::string path = video("a.mp4");
  UniqueFd writer(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  const auto start = SourceSettle::Clock::now();
  EXPECT_FALSE(waitUntil(
      [&] {
        settle.beginRound();
        return settle.isComplete(path);
      },
      1500ms));
  EXPECT_GE(SourceSettle::Clock::now() - start, 1500ms);
  EXPECT_TRUE(settle.nextLook());
  writer.reset();
  settle.beginRound();
  EXPECT_TRUE(settle.isComplete(path)) << "it has been at rest all the time";
}

TEST_F(SettleTest, WhatIsNoFileFailsByItself) {
  SourceSettle settle(60s);
  settle.beginRound();
  EXPECT_TRUE(settle.isComplete(media("absent")));
  EXPECT_TRUE(settle.isComplete(folder("disc")));
  EXPECT_FALSE(settle.nextLook());
}

TEST_F(SettleTest, JobsOfClientsAreNotHeldBack) {
  WatchedJobs watched(60s);
  KxDBTaskParam job;
  job.src = video("a.mp4");
  job.insertType = INSERT_USER;
  EXPECT_EQ(judge(watched, job), Verdict::Start);
  job.insertType = INSERT_WATCHER;
  EXPECT_EQ(judge(watched, job), Verdict::Wait);
  EXPECT_TRUE(watched.nextLook());
}

TEST_F(SettleTest, AJobWhoseVolumeIsAwayWaitsForIt) {
  initMonitor();
  folder("in");
  ASSERT_EQ(monitor->addFolder(media("in"), "4"), 0);
  ASSERT_EQ(monitor->stopAll(), 0);
  WatchedJobs watched(1s);
  const KxDBTaskParam job = queue(video("in/a.mp4"), 4);
  std::filesystem::rename(media("in"), media("away"));
  EXPECT_EQ(judge(watched, job), Verdict::Wait) << "the folder is missing";
  folder("in");
  EXPECT_EQ(judge(watched, job), Verdict::Wait) << "the folder is empty";
  video("in/b.mp4");
  EXPECT_EQ(judge(watched, job), Verdict::Start) << "the file is gone, and the job will say so";
  std::filesystem::rename(media("away/a.mp4"), media("in/a.mp4"));
  EXPECT_TRUE(waitUntil([&] { return judge(watched, job) == Verdict::Start; }));
}

TEST_F(SettleTest, RowsOfEarlierStatesOfASourceBecomeOne) {
  WatchedJobs watched(1s);
  std::vector<KxDBTaskParam> queued;
  for (const size_t bytes : {10U, 20U, 30U}) queued.push_back(queue(video("a.mp4", bytes), 1));
  queued.push_back(queue(video("a.mp4", 40), 2));
  ASSERT_EQ(rows().size(), 4U);
  ASSERT_TRUE(waitUntil([&] { return judge(watched, queued[0]) != Verdict::Wait; }));
  for (int i = 1; i < 3; ++i)
    EXPECT_EQ(judge(watched, queued[static_cast<size_t>(i)]), Verdict::Renewed);
  ASSERT_EQ(rows().size(), 1U);
  EXPECT_EQ(rows()[0].id, queued[3].id);
  EXPECT_EQ(rows()[0].fileSize, 40);
  EXPECT_EQ(rows()[0].jobFlag, 3U) << "no profile is lost";
  EXPECT_EQ(rows()[0].rank, 1);
  EXPECT_EQ(judge(watched, rows()[0]), Verdict::Start);
}

TEST_F(SettleTest, ALoneRowOfAnEarlierStateIsRenewed) {
  WatchedJobs watched(1s);
  const KxDBTaskParam queued = queue(video("a.mp4", 10), 4);
  video("a.mp4", 99);
  ASSERT_TRUE(waitUntil([&] { return judge(watched, queued) == Verdict::Renewed; }));
  ASSERT_EQ(rows().size(), 1U);
  EXPECT_EQ(rows()[0].fileSize, 99);
  EXPECT_EQ(rows()[0].jobFlag, 4U);
}

TEST_F(SettleTest, AJobWaitsForTheUnitThatHasItsSource) {
  WatchedJobs watched(1s);
  const KxDBTaskParam job = queue(video("a.mp4", 10), 4);
  KxDBTaskParam unit = job;
  unit.id = job.id + 100;
  ASSERT_TRUE(waitUntil([&] { return judge(watched, job) == Verdict::Start; }));
  EXPECT_EQ(judge(watched, job, {unit}), Verdict::Wait);
  unit.src = media("b.mp4");
  EXPECT_EQ(judge(watched, job, {unit}), Verdict::Start);
}

TEST_F(SettleTest, TheRecordedTimeFollowsACopyThatKeepsTimes) {
  WatchedJobs watched(1s);
  const std::string path = video("a.mp4");
  const KxDBTaskParam job = queue(path, 4);
  const auto recorded = [&] {
    const StoreGuard lock;
    return store->getModifiedTime({"a.mp4", media(""), 0, 0});
  };
  const auto record = [&](int64_t time) {
    const StoreGuard lock;
    ASSERT_EQ(store->addDBFile({"a.mp4", media(""), time, 8}), 0);
  };
  record(77);
  setTime(path, 5000);
  ASSERT_TRUE(waitUntil([&] { return judge(watched, job) == Verdict::Start; }));
  EXPECT_EQ(recorded(), 5000);
  // A file that is to be looked at again stays so.
  record(1);
  EXPECT_EQ(judge(watched, job), Verdict::Start);
  EXPECT_EQ(recorded(), 1);
}
