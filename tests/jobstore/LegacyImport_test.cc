#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "tests/jobstore/JobStoreFixture.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LegacyImport : public JobStoreTest {
 protected:
  // In a folder of its own, so that what appears beside it is seen.
  LegacyImport() { fs::create_directory(folder / "old"); }
  std::string oldPath() const { return folder / "old/old.db"; }
  // What is in the folder of the old file: bytes and time of change by name.
  std::map<std::string, std::pair<std::string, fs::file_time_type>> oldFiles() const {
    std::map<std::string, std::pair<std::string, fs::file_time_type>> files;
    for (const auto& entry : fs::directory_iterator(folder / "old")) {
      files[entry.path().filename().string()] = {kxtest::readFile(entry.path().string()),
                                                 entry.last_write_time()};
    }
    return files;
  }
  // The old queue as a service leaves it that was killed: with two jobs, the second one only
  // in a file beside it, or to be taken back.
  void makeOldOf(const std::string& journal) {
    const std::string other = folder / "running.db";
    const OtherConnection running(other);
    running.run("PRAGMA journal_mode=" + journal +
                "; PRAGMA wal_autocheckpoint=0; PRAGMA cache_size=1; CREATE TABLE TranscodeJob "
                "(Id INTEGER PRIMARY KEY, FileName TEXT, DateAdded INTEGER); "
                "INSERT INTO TranscodeJob VALUES(1, '/first', 1);");
    if (journal == "delete") running.run("BEGIN");
    running.run("INSERT INTO TranscodeJob VALUES(2, '/second', 2);");
    // More than fits into memory, so that the file has changed already.
    if (journal == "delete") {
      running.run("INSERT INTO TranscodeJob SELECT NULL, hex(randomblob(2000)), 3 FROM (VALUES "
                  "(1),(2),(3),(4),(5),(6),(7),(8),(9)), (VALUES (1),(2),(3),(4),(5),(6),(7))");
    }
    for (const char* suffix : {"", "-wal", "-journal"}) {
      if (fs::exists(other + suffix)) fs::copy_file(other + suffix, oldPath() + suffix);
    }
    if (journal == "delete") running.run("ROLLBACK");
  }
  static size_t importFolders() {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(fs::temp_directory_path()))
      count += entry.path().filename().string().starts_with("xcode_import_") ? 1U : 0U;
    return count;
  }
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

TEST_F(LegacyImport, TheOldFileAndItsFolderStayAsTheyAre) {
  makeTable();
  addOld("/a", 1);
  const auto before = oldFiles();
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_EQ(places().size(), 1U);
  EXPECT_EQ(oldFiles(), before);
}

TEST_F(LegacyImport, AWriteAheadLogIsReadAndStaysAsItIs) {
  makeOldOf("wal");
  ASSERT_GT(fs::file_size(oldPath() + "-wal"), 0U);
  const auto before = oldFiles();
  const size_t copies = importFolders();
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_THAT(places(), ElementsAre("first:1", "second:2"));
  EXPECT_EQ(oldFiles(), before);
  EXPECT_EQ(importFolders(), copies);
}

TEST_F(LegacyImport, AFileWhoseWriteAheadLogIsGoneGetsNoOther) {
  makeTable();
  addOld("/a", 1);
  OtherConnection(oldPath()).run("PRAGMA journal_mode=wal");
  const auto before = oldFiles();
  ASSERT_EQ(before.size(), 1U);
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_EQ(places().size(), 1U);
  EXPECT_EQ(oldFiles(), before);
}

TEST_F(LegacyImport, AnUnfinishedTransactionIsNotTakenOverAndStaysAsItIs) {
  makeOldOf("delete");
  ASSERT_GT(fs::file_size(oldPath() + "-journal"), 0U);
  const auto before = oldFiles();
  const size_t copies = importFolders();
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  EXPECT_THAT(places(), ElementsAre("first:1"));
  EXPECT_EQ(oldFiles(), before);
  EXPECT_EQ(importFolders(), copies);
}

TEST_F(LegacyImport, AFolderThatCannotBeWrittenIsNoObstacle) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to become another user";
  makeOldOf("wal");
  chmod((folder / "old").c_str(), 0555);
  chmod(folder.path().c_str(), 0777);
  chmod(dbPath().c_str(), 0666);
  ASSERT_EQ(seteuid(65534), 0);
  const int result = store->import_43x_DB(oldPath());
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(places().size(), 2U);
}

TEST_F(LegacyImport, AFileThatMayNotBeReadIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to become another user";
  makeTable();
  chmod(folder.path().c_str(), 0755);
  chmod(oldPath().c_str(), 0600);
  ASSERT_EQ(seteuid(65534), 0);
  const int result = store->import_43x_DB(oldPath());
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(log.has("open " + oldPath() + " fail, can not import old db\n"));
  EXPECT_TRUE(log.has("err log: unable to open database file\n"));
}

TEST_F(LegacyImport, APipeIsRefusedWithoutBeingOpened) {
  ASSERT_EQ(mkfifo(oldPath().c_str(), 0600), 0);
  EXPECT_EQ(store->import_43x_DB(oldPath()), 1);
  EXPECT_TRUE(log.has(oldPath() + " is not a regular file\n"));
}

TEST_F(LegacyImport, AViewIsNotTheTable) {
  OtherConnection(oldPath()).run(
      "CREATE VIEW TranscodeJob AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
      "SELECT i AS Id, 'x' AS FileName, i AS DateAdded FROM n");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 1);
  EXPECT_TRUE(log.hasPart("sqlite3_exec 'SELECT * FROM TranscodeJob"));
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(LegacyImport, ValuesOfAnyTypeAreTakenAsText) {
  // Without types of its own, so that the values keep theirs.
  OtherConnection(oldPath()).run(
      "CREATE TABLE TranscodeJob (Id, FileName, DestFileName, DateAdded, Status, Jobflag, "
      "Duration, "
      "iWidth, RotationDegree, Mediatype, SubtitleName);"
      "INSERT INTO TranscodeJob VALUES(1, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, "
      "NULL), (2, 17, 1.5, 1, 'text', '12abc', 3.9, -1, x'3435', '1', x'ff00'), (3, '/big', '', 2, "
      "'9223372036854775807', '99999999999999999999', 1e300, '', '', 0, '')");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  const std::vector<KxDBTaskParam> rows = jobs();
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(rows[0].src, "");
  EXPECT_EQ(rows[0].status, 0);
  EXPECT_EQ(rows[0].mediaType, 1);
  EXPECT_EQ(rows[1].src, "17");
  EXPECT_EQ(rows[1].dst, "1.5");
  EXPECT_EQ(rows[1].status, 0);
  EXPECT_EQ(rows[1].jobFlag, 12U);
  EXPECT_EQ(rows[1].duration, 3);
  EXPECT_EQ(rows[1].width, -1);
  EXPECT_EQ(rows[1].rotation, 45);
  EXPECT_EQ(rows[1].mediaType, 2);
  EXPECT_EQ(rows[2].src, "/big");
}

TEST_F(LegacyImport, AHugeTextIsTakenOverWhole) {
  makeTable();
  OtherConnection(oldPath()).run("INSERT INTO TranscodeJob (FileName, DateAdded) VALUES "
                                 "(hex(zeroblob(3000000)), 1), ('/b', 2)");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 0);
  ASSERT_EQ(jobs().size(), 2U);
  EXPECT_EQ(jobs()[0].src, std::string(6000000, '0'));
}

TEST_F(LegacyImport, AFileThatIsDamagedInTheMiddleLeavesTheQueueAsItWas) {
  makeTable();
  OtherConnection(oldPath()).run(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
      "INSERT INTO TranscodeJob (FileName, DateAdded) SELECT '/' || hex(zeroblob(100)) || i, i "
      "FROM n");
  std::string bytes = kxtest::readFile(oldPath());
  bytes.replace(bytes.size() / 2, 8192, 8192, '\xff');
  kxtest::writeFile(oldPath(), bytes);
  queueSource("s.mp3");
  EXPECT_EQ(store->import_43x_DB(oldPath()), 1);
  EXPECT_TRUE(log.has("database disk image is malformed\n"));
  EXPECT_THAT(places(), ElementsAre("s:1"));
}
