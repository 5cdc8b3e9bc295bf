#include "tests/jobstore/JobStoreFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned bit(unsigned n) {
  return 1U << n;
}
constexpr unsigned kAll = bit(4);

class JobQueries : public JobStoreTest {
 protected:
  // One job for each pair of status and insert type, named "sSTATUSiTYPE"; its media type is
  // 1 more than the insert type.
  void fill() {
    for (const int status : {0, 1, 2, 3, 4, 5}) {
      for (const int insertType : {0, 1}) {
        ASSERT_EQ(store->exec("INSERT INTO JobTable (SrcPath, DstPath, Status, InsertType, "
                              "MediaType, Priority, Rank) VALUES('s" +
                              std::to_string(status) + "i" + std::to_string(insertType) +
                              "', '', " + std::to_string(status) + ", " +
                              std::to_string(insertType) + ", " + std::to_string(insertType + 1) +
                              ", " + std::to_string(insertType) +
                              ", (SELECT IFNULL(MAX(Rank), 0) + 1 FROM JobTable))"),
                  0);
      }
    }
  }
  std::vector<std::string> names(const KxDBGetJobParam& query) {
    std::vector<std::string> result;
    for (const KxDBTask& task : store->getDBJob(query)) {
      EXPECT_FALSE(task.isEmpty);
      result.push_back(task.param.src);
    }
    return result;
  }
  static KxDBGetJobParam byFlags(unsigned flags, int32_t insertType = -1, int32_t mediaType = 0) {
    return {flags, 100, "Rank", 0, true, insertType, mediaType};
  }
};

}  // namespace

TEST_F(JobQueries, EachSelectableStatusCanBeAskedForAlone) {
  fill();
  for (const unsigned status : {0U, 1U, 2U, 3U, 5U}) {
    const std::string s = "s" + std::to_string(status);
    EXPECT_THAT(names(byFlags(bit(status))), ElementsAre(s + "i0", s + "i1"));
    EXPECT_EQ(store->getJobCount(byFlags(bit(status))), 2);
  }
}

TEST_F(JobQueries, BitFourMeansEveryStatusWhateverElseIsSet) {
  fill();
  EXPECT_EQ(names(byFlags(kAll)).size(), 12U);
  EXPECT_EQ(names(byFlags(kAll | bit(0) | bit(7))).size(), 12U);
  EXPECT_EQ(store->getJobCount(byFlags(kAll)), 12);
}

TEST_F(JobQueries, SeveralStatesAreJoined) {
  fill();
  EXPECT_THAT(names(byFlags(bit(0) | bit(5))), ElementsAre("s0i0", "s0i1", "s5i0", "s5i1"));
  EXPECT_EQ(store->getJobCount(byFlags(bit(0) | bit(3) | bit(5))), 6);
}

TEST_F(JobQueries, AnInsertOrMediaTypeNarrowsASingleStatus) {
  fill();
  EXPECT_THAT(names(byFlags(bit(0), 1)), ElementsAre("s0i1"));
  EXPECT_THAT(names(byFlags(bit(0), -1, 1)), ElementsAre("s0i0"));
  EXPECT_THAT(names(byFlags(bit(0), 1, 1)), IsEmpty());
  EXPECT_THAT(names(byFlags(kAll, 1, 2)),
              ElementsAre("s0i1", "s1i1", "s2i1", "s3i1", "s4i1", "s5i1"));
  EXPECT_EQ(store->getJobCount(byFlags(kAll, 0)), 6);
}

TEST_F(JobQueries, WithSeveralStatesTheOtherFiltersBindToTheLastOneOnly) {
  fill();
  EXPECT_THAT(names(byFlags(bit(0) | bit(3), 1)), ElementsAre("s0i0", "s0i1", "s3i1"));
  EXPECT_THAT(names(byFlags(bit(0) | bit(3), -1, 1)), ElementsAre("s0i0", "s0i1", "s3i0"));
  EXPECT_EQ(store->getJobCount(byFlags(bit(0) | bit(3), 1)), 3);
}

TEST_F(JobQueries, EveryStatusWithAMediaTypeButNoInsertTypeIsASyntaxError) {
  fill();
  log.clear();
  EXPECT_THAT(names(byFlags(kAll, -1, 1)), IsEmpty());
  EXPECT_TRUE(log.has("sqlite3_exec 'SELECT * FROM JobTable  AND MediaType = 1 ORDER BY Rank ASC , "
                      "Rank ASC LIMIT 100 OFFSET 0' fail\n"));
  EXPECT_TRUE(log.has("near \"AND\": syntax error\n"));
  EXPECT_EQ(store->getJobCount(byFlags(kAll, -1, 1)), 0);
}

TEST_F(JobQueries, TheHighestTwoBitsAreIgnoredAndAloneGiveNothing) {
  fill();
  EXPECT_THAT(names(byFlags(bit(0) | bit(6) | bit(7))), ElementsAre("s0i0", "s0i1"));
  for (const unsigned flags : {bit(6), bit(7), bit(6) | bit(7)}) {
    EXPECT_THAT(names(byFlags(flags)), IsEmpty());
    EXPECT_THAT(names(byFlags(flags, 1, 1)), IsEmpty());
  }
  EXPECT_TRUE(log.has("sqlite3_exec 'SELECT * FROM JobTable  WHERE ORDER BY Rank ASC , Rank ASC "
                      "LIMIT 100 OFFSET 0' fail\n"));
}

TEST_F(JobQueries, TheQueryTextIsTheFixedOne) {
  ASSERT_EQ(store->exec("DROP TABLE JobTable"), 0);
  names({bit(0) | bit(2), 5, "Priority", 7, false, 1, 2});
  EXPECT_TRUE(log.has(
      "sqlite3_exec 'SELECT * FROM JobTable  WHERE Status = 0  OR Status = 2  AND InsertType "
      "= 1  AND MediaType = 2 ORDER BY Priority DESC , Rank DESC LIMIT 5 OFFSET 7' fail\n"));
  store->getJobCount({kAll, 5, "Priority", 7, false, 1, 2});
  EXPECT_TRUE(
      log.has("sqlite3_exec 'SELECT COUNT(*) AS res FROM JobTable  WHERE InsertType = 1  AND "
              "MediaType = 2 ' fail\n"));
  EXPECT_TRUE(log.has("no such table: JobTable\n"));
}

TEST_F(JobQueries, RowsAreOrderedByColumnThenRankBothInOneDirection) {
  fill();
  EXPECT_THAT(names({bit(0) | bit(1), 100, "Priority", 0, true, -1, 0}),
              ElementsAre("s0i0", "s1i0", "s0i1", "s1i1"));
  EXPECT_THAT(names({bit(0) | bit(1), 100, "Priority", 0, false, -1, 0}),
              ElementsAre("s1i1", "s0i1", "s1i0", "s0i0"));
}

TEST_F(JobQueries, APageStartsAtItsOffset) {
  fill();
  EXPECT_THAT(names({kAll, 2, "Rank", 3, true, -1, 0}), ElementsAre("s1i1", "s2i0"));
  EXPECT_THAT(names({kAll, 5, "Rank", 11, true, -1, 0}), ElementsAre("s5i1"));
  EXPECT_THAT(names({kAll, 5, "Rank", 12, true, -1, 0}), IsEmpty());
  EXPECT_THAT(names({kAll, 0, "Rank", 0, true, -1, 0}), IsEmpty());
  EXPECT_EQ(store->getJobCount({kAll, 2, "Rank", 3, true, -1, 0}), 12);
}

TEST_F(JobQueries, MoreThanAThousandRowsAreRefused) {
  ASSERT_EQ(
      store->exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
                  "1200) INSERT INTO JobTable (SrcPath, DstPath, Rank) SELECT 's' || i, '', i "
                  "FROM n"),
      0);
  EXPECT_EQ(names({kAll, 1000, "Rank", 0, true, -1, 0}).size(), 1000U);
  EXPECT_THAT(names({kAll, 1001, "Rank", 0, true, -1, 0}), IsEmpty());
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "exceed max query cnt 1000\n"));
  EXPECT_EQ(store->getJobCount({kAll, 1001, "Rank", 0, true, -1, 0}), 0);
  EXPECT_EQ(store->getJobCount({kAll, 1000, "Rank", 0, true, -1, 0}), 1200);
  // A negative limit is the engine's way of saying none.
  EXPECT_EQ(names({kAll, -1, "Rank", 0, true, -1, 0}).size(), 1200U);
}

TEST_F(JobQueries, AnEmptyFlagSetIsRefused) {
  fill();
  EXPECT_THAT(names(byFlags(0)), IsEmpty());
  EXPECT_EQ(store->getJobCount(byFlags(0)), 0);
  EXPECT_EQ(log.count("No flag set\n"), 2U);
}

TEST_F(JobQueries, EveryColumnOrdersAndNothingElseReachesTheEngine) {
  fill();
  const OtherConnection db(dbPath());
  const auto columns = db.rows("SELECT name FROM pragma_table_info('JobTable')");
  ASSERT_EQ(columns.size(), 25U);
  for (const std::string& column : columns)
    EXPECT_EQ(names({kAll, 100, column, 0, true, -1, 0}).size(), 12U) << column;
  for (const std::string text :
       {"", "rank", "Rank ", "Rank, Id", "Nothing", "1; DELETE FROM JobTable; --", "RANDOM()"})
    EXPECT_THAT(names({kAll, 100, text, 0, true, -1, 0}), IsEmpty()) << text;
  EXPECT_EQ(store->getJobCount(byFlags(kAll)), 12);
  EXPECT_TRUE(log.has("no such column: Nothing\n"));
}

TEST_F(JobQueries, ALongOrderByIsRefusedLikeAnyOther) {
  fill();
  EXPECT_THAT(names({kAll, 100, std::string(100000, 'x'), 0, true, -1, 0}), IsEmpty());
}

TEST_F(JobQueries, SingleRowsAreFoundByIdAndBySource) {
  queueSource("a.mp3");
  queueSource("b.mp3");
  KxDBTaskParam again = request(source("a.mp3"));
  again.aid = 1;
  queue(again);
  const auto byId = store->getDBJobById(2);
  ASSERT_EQ(byId.size(), 1U);
  EXPECT_FALSE(byId[0].isEmpty);
  EXPECT_EQ(byId[0].param.src, folder / "b.mp3");
  EXPECT_EQ(byId[0].param.rank, 2);
  EXPECT_THAT(store->getDBJobById(9), IsEmpty());
  const auto bySource = store->getDBJobBySource(folder / "a.mp3");
  ASSERT_EQ(bySource.size(), 2U);
  EXPECT_EQ(bySource[0].param.id, 1);
  EXPECT_EQ(bySource[1].param.id, 3);
  EXPECT_THAT(store->getDBJobBySource(folder / "A.mp3"), IsEmpty());
}
