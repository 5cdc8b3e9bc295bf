#include <gtest/gtest.h>

#include "KxTransDBMgr.h"
#include "daemon/WaitingRows.h"
#include "tests/support/TestSupport.h"

using kxtest::TempDir;

namespace {

class WaitingRowsTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(store().init(m_dir / "jobs.db"), 0); }
  void TearDown() override { store().uninit(); }

  KxTransDBMgr& store() { return *KxTransDBMgr::getInstance(); }

  void insert(int id, int priority, int rank, int status) {
    ASSERT_EQ(store().exec("INSERT INTO JobTable (Id, SrcPath, DstPath, JobFlag, Priority, Rank, "
                           "Status) VALUES(" +
                           std::to_string(id) + ", '/x', '', 1, " + std::to_string(priority) +
                           ", " + std::to_string(rank) + ", " + std::to_string(status) + ")"),
              0);
  }

  TempDir m_dir;
};

}  // namespace

TEST_F(WaitingRowsTest, ComeByPriorityThenPlace) {
  insert(1, 5, 1, 0);
  insert(2, 0, 2, 0);
  insert(3, -3, 4, 0);
  insert(4, 0, 3, 0);
  insert(5, -9, 5, 1);
  insert(6, -9, 6, 3);
  xcoded::WaitingRows rows;
  std::vector<int64_t> ids;
  while (const auto row = rows.next()) {
    ids.push_back(row->id);
    rows.skip();
  }
  EXPECT_EQ(ids, (std::vector<int64_t>{3, 2, 4, 1}));
}

TEST_F(WaitingRowsTest, SkippedRowsAreReadBehind) {
  for (int i = 1; i <= 700; ++i) insert(i, 0, i, 0);
  xcoded::WaitingRows rows;
  int64_t expected = 1;
  for (; const auto row = rows.next(); ++expected) {
    ASSERT_EQ(row->id, expected);
    rows.skip();
  }
  EXPECT_EQ(expected, 701);
}

TEST_F(WaitingRowsTest, RowsThatStoppedWaitingMakeRoomForTheNext) {
  for (int i = 1; i <= 40; ++i) insert(i, 0, i, 0);
  xcoded::WaitingRows rows;
  std::vector<int64_t> ids;
  while (const auto row = rows.next()) {
    ids.push_back(row->id);
    store().exec("UPDATE JobTable SET Status = 3 WHERE Id = " + std::to_string(row->id));
  }
  EXPECT_EQ(ids.size(), 40U);
}
