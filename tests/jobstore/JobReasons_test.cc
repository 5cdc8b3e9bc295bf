#include "tests/jobstore/JobStoreFixture.h"

namespace {

class JobReasons : public JobStoreTest {};

}  // namespace

TEST_F(JobReasons, AReasonIsKeptReplacedAndForgotten) {
  const int64_t id = queueSource("a.mp3").id;
  EXPECT_EQ(store->getDBJobReason(id), "");
  EXPECT_EQ(store->updateDBJobReason(id, "it's \"broken\""), 0);
  EXPECT_EQ(store->getDBJobReason(id), "it's \"broken\"");
  EXPECT_EQ(store->updateDBJobReason(id, "again"), 0);
  EXPECT_EQ(store->getDBJobReason(id), "again");
  EXPECT_EQ(store->updateDBJobReason(id, ""), 0);
  EXPECT_EQ(store->getDBJobReason(id), "");
}

TEST_F(JobReasons, ReasonsBelongToTheirJobsAndOutliveARestart) {
  const int64_t a = queueSource("a.mp3").id;
  const int64_t b = queueSource("b.mp3").id;
  store->updateDBJobReason(a, "one");
  store->updateDBJobReason(b, "two");
  store->uninit();
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_EQ(store->getDBJobReason(a), "one");
  EXPECT_EQ(store->getDBJobReason(b), "two");
}

TEST_F(JobReasons, AMissingJobHasNone) {
  EXPECT_EQ(store->updateDBJobReason(5, "text"), 1);
  EXPECT_EQ(store->updateDBJobReason(-1, "text"), 1);
  EXPECT_EQ(store->updateDBJobReason(5, ""), 1);
  EXPECT_EQ(store->getDBJobReason(5), "");
}

TEST_F(JobReasons, EveryWayOfDeletingAJobForgetsItsReasonBeforeTheIdIsUsedAgain) {
  const std::vector<std::function<int(const KxDBTaskParam&)>> deletes = {
      [&](const KxDBTaskParam& job) { return store->deleteDBJobById(job); },
      [&](const KxDBTaskParam& job) { return store->deleteDBJobByFilename(job); },
      [&](const KxDBTaskParam& job) { return store->deleteDBJobByDirname(job); },
      [&](const KxDBTaskParam&) { return store->cleanUnprocessedDBJob(); },
      [&](const KxDBTaskParam& job) {
        setStatus(job.id, 2);
        return store->cleanProcessedDBJob();
      },
      [&](const KxDBTaskParam&) { return store->exec("DELETE FROM JobTable"); }};
  for (size_t i = 0; i < deletes.size(); ++i) {
    const KxDBTaskParam job = queueSource("a.mp3");
    ASSERT_EQ(job.id, 1);
    ASSERT_EQ(store->updateDBJobReason(job.id, "failed"), 0);
    ASSERT_EQ(deletes[i](job), 0) << i;
    EXPECT_EQ(queueSource("b.mp3").id, 1);
    EXPECT_EQ(store->getDBJobReason(1), "") << i;
    ASSERT_EQ(store->exec("DELETE FROM JobTable"), 0);
  }
}

TEST_F(JobReasons, AReasonWhoseJobSomebodyElseDeletedPassesToNoOther) {
  const int64_t id = queueSource("a.mp3").id;
  store->updateDBJobReason(id, "failed");
  OtherConnection(dbPath()).run("DELETE FROM JobTable");
  EXPECT_EQ(queueSource("b.mp3").id, id);
  EXPECT_EQ(store->getDBJobReason(id), "");
}

TEST_F(JobReasons, AReasonLeftWithoutAJobIsForgottenAtTheNextStart) {
  const int64_t id = queueSource("a.mp3").id;
  store->updateDBJobReason(id, "failed");
  store->uninit();
  OtherConnection(dbPath()).run("DELETE FROM JobTable");
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_EQ(store->getDBJobReason(id), "");
}

TEST_F(JobReasons, AVanishedReasonTableDoesNotKeepTheStoreFromStarting) {
  queueSource("a.mp3");
  store->uninit();
  OtherConnection(dbPath()).run("DROP TABLE JobReason");
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_EQ(store->updateDBJobReason(1, "again"), 0);
  EXPECT_EQ(store->getDBJobReason(1), "again");
}
