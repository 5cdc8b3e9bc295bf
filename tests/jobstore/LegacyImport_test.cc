#include <filesystem>

#include "tests/jobstore/JobStoreFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LegacyImport : public JobStoreTest {
 protected:
  std::string oldPath() const { return folder / "old.db"; }
  void makeTable() {
    OtherConnection(oldPath()).run(
        "CREATE TABLE TranscodeJob (Id INTEGER PRIMARY KEY, FileName TEXT, DestFileName TEXT, "
        "DateAdded INTEGER, DateStart INTEGER, DateFinished INTEGER, Mediatype INTEGER, Status "
        "INTEGER, Inserttype INTEGER, Jobflag INTEGER, Filesize INTEGER, RotationDegree "
        "INTEGER, Duration INTEGER, iWidth INTEGER, iHeight INTEGER, AudioId INTEGER, "
        "SubtitleId INTEGER, SubtitleName TEXT, SubtitleCodepage TEXT, SubtitleSize INTEGER, "
        "SubtitleSeek INTEGER, SubtitleColor TEXT, JobOKflag INTEGER, SoftwareDoJob INTEGER, "
        "AlbumId INTEGER)");
  }
  void addOld(const std::string& name, int dateAdded, const std::string& columns = "",
              const std::string& values = "") {
    OtherConnection(oldPath()).run("INSERT INTO TranscodeJob (FileName, DateAdded" + columns +
                                   ") VALUES('" + name + "', " + std::to_string(dateAdded) +
                                   values + ")");
  }
};

}  // namespace

TEST_F(LegacyImport, OldJobsFollowTheQueueInTheOrderOfTheirAddDates) {
  for (int i = 0; i < 5; ++i) queueSource("s" + std::to_string(i) + ".mp3");
  makeTable();
  addOld("/third.avi", 300);
  addOld("/first.avi", 100);
  addOld("/second.avi", 200);
  log.clear();
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_THAT(places(), ElementsAre("s0:1", "s1:2", "s2:3", "s3:4", "s4:5", "first:6", "second:7",
                                    "third:8"));
  EXPECT_FALSE(log.hasPart("unknow attr"));
}

TEST_F(LegacyImport, EveryColumnArrivesInItsField) {
  makeTable();
  OtherConnection(oldPath()).run(
      "INSERT INTO TranscodeJob VALUES(7, '/a.avi', '/out', 11, 12, 13, 0, 2, 1, 96, 5000, 450, "
      "60, 640, 480, 3, 4, 's.srt', 'utf8', 20, -5, 'red', 1, 1, 9)");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  ASSERT_EQ(jobs().size(), 1U);
  const KxDBTaskParam job = jobs()[0];
  EXPECT_EQ(job.id, 1);
  EXPECT_EQ(job.src, "/a.avi");
  EXPECT_EQ(job.dst, "/out");
  EXPECT_EQ(job.dateAdd, 11);
  EXPECT_EQ(job.dateStart, 12);
  EXPECT_EQ(job.dateFinish, 13);
  EXPECT_EQ(job.mediaType, 1);
  EXPECT_EQ(job.status, 2);
  EXPECT_EQ(job.insertType, 1);
  EXPECT_EQ(job.jobFlag, 96U);
  EXPECT_EQ(job.fileSize, 5000);
  EXPECT_EQ(job.rotation, 90);
  EXPECT_EQ(job.duration, 60);
  EXPECT_EQ(job.width, 640);
  EXPECT_EQ(job.height, 480);
  EXPECT_EQ(job.aid, 3);
  EXPECT_EQ(job.sid, 4);
  EXPECT_EQ(job.subtitle, "s.srt");
  EXPECT_EQ(job.subSize, 20);
  EXPECT_EQ(job.subSeek, -5);
  EXPECT_EQ(job.subColor, "red");
  EXPECT_EQ(job.priority, 0);
  EXPECT_EQ(job.hwStart, 0);
  EXPECT_EQ(job.vid, 0);
  EXPECT_EQ(job.rank, 1);
}

TEST_F(LegacyImport, RunningJobsWaitAgainAndOtherStatesStay) {
  makeTable();
  for (const int status : {0, 1, 2, 3, 4, 5})
    addOld("/" + std::to_string(status), status, ", Status", ", " + std::to_string(status));
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  std::vector<int32_t> states;
  for (const KxDBTaskParam& job : jobs()) states.push_back(job.status);
  EXPECT_THAT(states, ElementsAre(0, 1, 2, 0, 4, 5));
}

TEST_F(LegacyImport, MediaTypesAreCountedFromOneAndOddOnesAreVideo) {
  makeTable();
  for (const int type : {-1, 0, 1, 2, 3, 99})
    addOld("/" + std::to_string(type), type + 2, ", Mediatype", ", " + std::to_string(type));
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  std::vector<int32_t> types;
  for (const KxDBTaskParam& job : jobs()) types.push_back(job.mediaType);
  EXPECT_THAT(types, ElementsAre(2, 1, 2, 3, 2, 2));
}

TEST_F(LegacyImport, RotationsAreTakenModuloAFullTurn) {
  makeTable();
  for (const int degrees : {0, 90, 360, 450, -90}) {
    addOld("/" + std::to_string(degrees), degrees + 100, ", RotationDegree",
           ", " + std::to_string(degrees));
  }
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  std::vector<int32_t> rotations;
  for (const KxDBTaskParam& job : jobs()) rotations.push_back(job.rotation);
  EXPECT_THAT(rotations, ElementsAre(-90, 0, 90, 0, 90));
}

TEST_F(LegacyImport, ASizeBeyond32BitsIsCut) {
  makeTable();
  addOld("/a", 1, ", Filesize", ", 4294967303");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_EQ(jobs()[0].fileSize, 7);
}

TEST_F(LegacyImport, MissingTextIsStoredAsEmptyText) {
  makeTable();
  addOld("", 1);
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_EQ(OtherConnection(dbPath()).value("SELECT typeof(SrcPath)||typeof(DstPath)||"
                                            "typeof(SubtitlePath)||typeof(SubtitleColor) "
                                            "FROM JobTable"),
            "texttexttexttext");
}

TEST_F(LegacyImport, UnknownColumnsAreLoggedAndIgnored) {
  makeTable();
  OtherConnection(oldPath()).run("ALTER TABLE TranscodeJob ADD COLUMN Odd TEXT");
  addOld("/a", 1, ", Odd", ", 'x'");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_TRUE(log.has("unknow attr, colName[25]=Odd, argv[25]=x\n"));
  EXPECT_EQ(jobs().size(), 1U);
}

TEST_F(LegacyImport, AJobThatCannotBeStoredIsSkipped) {
  makeTable();
  addOld("/a", 1);
  addOld("/bad", 2);
  addOld("/c", 3);
  ASSERT_EQ(
      store->exec("CREATE TRIGGER t BEFORE INSERT ON JobTable WHEN NEW.SrcPath = '/bad' BEGIN "
                  "SELECT RAISE(ABORT, 'refused'); END"),
      0);
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_TRUE(log.has("step filed:refused\n"));
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "import oldId=2, name=/bad fail\n"));
  EXPECT_THAT(places(), ElementsAre("a:1", "c:2"));
  store->uninit();
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_THAT(places(), ElementsAre("a:1", "c:2"));
}

TEST_F(LegacyImport, WithoutARankNoJobIsStored) {
  makeTable();
  addOld("/a", 1);
  ASSERT_EQ(store->exec("ALTER TABLE JobTable RENAME COLUMN Rank TO Other"), 0);
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_TRUE(log.has("query max rank fail\n"));
  EXPECT_TRUE(log.has("import oldId=1, name=/a fail\n"));
}

TEST_F(LegacyImport, PathsThatAreNoFileAreRefused) {
  EXPECT_EQ(store->import_43x_DB(""), 1);
  EXPECT_TRUE(log.has("empty DB path\n"));
  EXPECT_EQ(store->import_43x_DB("/missing.db"), 1);
  EXPECT_TRUE(log.has("DB path /missing.db is invalid\n"));
  const std::string path = folder.path().string();
  EXPECT_EQ(store->import_43x_DB(path), 1);
  EXPECT_TRUE(log.has(path + " is not a regular file\n"));
  EXPECT_FALSE(std::filesystem::exists("/missing.db"));
}

TEST_F(LegacyImport, AFileThatCannotBeOpenedIsRefused) {
  // Longer than the engine takes, not too long for the system.
  std::string path = folder.path().string();
  for (int i = 0; i < 4; ++i) path += "/" + std::string(200, 'd');
  std::filesystem::create_directories(path);
  path += "/old.db";
  kxtest::writeFile(path, "");
  EXPECT_EQ(store->import_43x_DB(path), 1);
  EXPECT_TRUE(log.has("open " + path + " fail, can not import old db\n"));
  EXPECT_TRUE(log.has("err log: unable to open database file\n"));
}

TEST_F(LegacyImport, AFileWithoutTheTableIsRefused) {
  kxtest::writeFile(oldPath(), "");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 1);
  EXPECT_TRUE(log.has("sqlite3_exec 'SELECT * FROM TranscodeJob ORDER BY DateAdded ASC' fail\n "));
  EXPECT_TRUE(log.has("no such table: TranscodeJob\n"));
  kxtest::writeFile(oldPath(), std::string(5000, 'x'));
  EXPECT_EQ(store->import_43x_DB(oldPath()), 1);
  EXPECT_TRUE(log.has("file is not a database\n"));
  EXPECT_THAT(jobs(), IsEmpty());
}
