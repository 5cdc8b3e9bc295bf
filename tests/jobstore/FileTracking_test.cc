#include "tests/jobstore/JobStoreFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class FileTracking : public JobStoreTest {
 protected:
  std::vector<std::string> rows() {
    return OtherConnection(dbPath()).rows(
        "SELECT FullPath || Filename, ModifiedTime, Size FROM FileTable ORDER BY Id");
  }
  // Adds a file "x" to each folder.
  void addTo(const std::vector<std::string>& folders) {
    for (const std::string& path : folders) ASSERT_EQ(store->addDBFile({"x", path, 10, 1}), 0);
  }
};

}  // namespace

TEST_F(FileTracking, AddingAFileTwiceKeepsTheSecondTimeAndTheFirstSize) {
  EXPECT_EQ(store->addDBFile({"a.mkv", "/share/", 100, 5000000000}), 0);
  EXPECT_EQ(store->addDBFile({"a.mkv", "/share/", 200, 7}), 0);
  EXPECT_THAT(rows(), ElementsAre("/share/a.mkv|200|5000000000"));
}

TEST_F(FileTracking, AFileIsKnownByNameAndFolder) {
  store->addDBFile({"a", "/x/", 1, 1});
  store->addDBFile({"a", "/y/", 2, 1});
  store->addDBFile({"b", "/x/", 3, 1});
  EXPECT_EQ(store->getModifiedTime({"a", "/x/", 0, 0}), 1);
  EXPECT_EQ(store->getModifiedTime({"a", "/y/", 0, 0}), 2);
  EXPECT_EQ(store->getModifiedTime({"b", "/x/", 0, 0}), 3);
  EXPECT_EQ(store->getModifiedTime({"b", "/y/", 0, 0}), -1);
}

TEST_F(FileTracking, AnUnknownFileIsMinusOneWithTheEnginesCode) {
  EXPECT_EQ(store->getModifiedTime({"a", "/x/", 0, 0}), -1);
  EXPECT_TRUE(log.hasPart("Can not get result:" + std::to_string(SQLITE_DONE) + ","));
}

TEST_F(FileTracking, TimesBeyond32BitsAreKept) {
  store->addDBFile({"a", "/x/", int64_t{1} << 40, 1});
  EXPECT_EQ(store->getModifiedTime({"a", "/x/", 0, 0}), int64_t{1} << 40);
}

TEST_F(FileTracking, IncompleteFilesAreRefused) {
  for (const KxDBMgrFileParam& file :
       {KxDBMgrFileParam("", "/x/", 5, 1), KxDBMgrFileParam("a", "", 5, 1),
        KxDBMgrFileParam("a", "/x/", 0, 1), KxDBMgrFileParam("a", "/x/", -5, 1)})
    EXPECT_EQ(store->addDBFile(file), 1);
  EXPECT_EQ(log.count("Invalid params\n"), 4U);
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(FileTracking, EveryOperationRefusesEmptyNames) {
  EXPECT_EQ(store->updateDBFile({"", "/x/", 5, 1}), 1);
  EXPECT_EQ(store->updateDBFile({"a", "", 5, 1}), 1);
  EXPECT_EQ(store->deleteDBFile({"", "/x/", 5, 1}), 1);
  EXPECT_EQ(store->deleteDBFile({"a", "", 5, 1}), 1);
  EXPECT_EQ(store->deleteDBFolder({"a", "", 5, 1}), 1);
  EXPECT_EQ(store->resetModifiedTime({"a", "", 5, 1}), 1);
  EXPECT_EQ(store->getModifiedTime({"", "/x/", 5, 1}), -1);
  EXPECT_EQ(store->getModifiedTime({"a", "", 5, 1}), -1);
  EXPECT_EQ(log.count("Invalid params\n"), 8U);
}

TEST_F(FileTracking, AnUpdateStoresTheTimeOnly) {
  store->addDBFile({"a", "/x/", 5, 1});
  EXPECT_EQ(store->updateDBFile({"a", "/x/", 6, 99}), 0);
  EXPECT_THAT(rows(), ElementsAre("/x/a|6|1"));
  EXPECT_EQ(store->updateDBFile({"unknown", "/x/", 6, 99}), 0);
  EXPECT_EQ(rows().size(), 1U);
}

TEST_F(FileTracking, DeletingForgetsOneFile) {
  store->addDBFile({"a", "/x/", 5, 1});
  store->addDBFile({"b", "/x/", 5, 1});
  EXPECT_EQ(store->deleteDBFile({"a", "/x/", 0, 0}), 0);
  EXPECT_THAT(rows(), ElementsAre("/x/b|5|1"));
  EXPECT_EQ(store->deleteDBFile({"a", "/x/", 0, 0}), 0);
}

TEST_F(FileTracking, DeletingAFolderTakesItsSubFoldersAndEveryPathThatBeginsLikeIt) {
  addTo({"/share/a", "/share/a/b", "/share/ab", "/share/A", "/share/b"});
  EXPECT_EQ(store->deleteDBFolder({"", "/share/a", 0, 0}), 0);
  EXPECT_THAT(rows(), ElementsAre("/share/Ax|10|1", "/share/bx|10|1"));
}

TEST_F(FileTracking, DeletingAFolderTakesItsNameByteByByte) {
  addTo({"/s/My_Dir/", "/s/MyXDir/", "/s/my_dir/", "/s/50%/", "/s/500/"});
  EXPECT_EQ(store->deleteDBFolder({"", "/s/My_Dir/", 0, 0}), 0);
  EXPECT_EQ(store->deleteDBFolder({"", "/s/50%/", 0, 0}), 0);
  EXPECT_THAT(rows(), ElementsAre("/s/MyXDir/x|10|1", "/s/my_dir/x|10|1", "/s/500/x|10|1"));
}

TEST_F(FileTracking, AResetTouchesTheFilesDirectlyInTheFolderOnly) {
  addTo({"/share/a/", "/share/a/b/", "/share/"});
  EXPECT_EQ(store->resetModifiedTime({"", "/share/a/", 0, 0}), 0);
  EXPECT_EQ(store->getModifiedTime({"x", "/share/a/", 0, 0}), 1);
  EXPECT_EQ(store->getModifiedTime({"x", "/share/a/b/", 0, 0}), 10);
  EXPECT_EQ(store->getModifiedTime({"x", "/share/", 0, 0}), 10);
}

TEST_F(FileTracking, OnlyTheInsertTellsWhatTheEngineSaid) {
  store->addDBFile({"known", "/x/", 5, 1});
  for (const char* event : {"INSERT", "UPDATE", "DELETE"}) {
    OtherConnection(dbPath()).run("CREATE TRIGGER on" + std::string(event) + " BEFORE " + event +
                                  " ON FileTable BEGIN SELECT RAISE(ABORT, 'refused'); END");
  }
  EXPECT_EQ(store->addDBFile({"new", "/x/", 5, 1}), 1);
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "step filed:refused\n"));
  EXPECT_EQ(store->addDBFile({"known", "/x/", 6, 1}), 1);
  EXPECT_EQ(store->updateDBFile({"known", "/x/", 6, 1}), 1);
  EXPECT_EQ(store->deleteDBFile({"known", "/x/", 6, 1}), 1);
  EXPECT_EQ(store->deleteDBFolder({"", "/x/", 6, 1}), 1);
  EXPECT_EQ(store->resetModifiedTime({"", "/x/", 6, 1}), 1);
  EXPECT_EQ(log.count("step filed\n"), 5U);
  EXPECT_EQ(store->getModifiedTime({"known", "/x/", 0, 0}), 5);
}

TEST_F(FileTracking, AClosedStoreFailsEachOperationInItsOwnWords) {
  store->uninit();
  EXPECT_EQ(store->addDBFile({"a", "/x/", 5, 1}), 1);
  EXPECT_TRUE(log.has("Bind failed:database is not open\n"));
  EXPECT_EQ(store->updateDBFile({"a", "/x/", 5, 1}), 1);
  EXPECT_EQ(store->getModifiedTime({"a", "/x/", 5, 1}), -1);
  EXPECT_EQ(log.count("Bind failed:\n"), 2U);
}
