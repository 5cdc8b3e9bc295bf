#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <future>
#include <thread>

#include "tests/jobstore/JobStoreFixture.h"

#if defined(__SANITIZE_THREAD__)
#define KX_UNDER_TSAN
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KX_UNDER_TSAN
#endif
#endif

namespace fs = std::filesystem;
using kxtest::readFile;
using kxtest::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A job store that each test opens itself.
class JobDatabase : public JobStoreTest {
 protected:
  JobDatabase() { restart(); }
  void restart() {
    store->uninit();
    log.clear();
  }
  int reopen() {
    restart();
    return store->init(dbPath());
  }
  // Opens the store in a child process, works with it there and dies without closing.
  void workAndDie(const std::function<void()>& work) {
    restart();
    const pid_t pid = fork();
    if (pid == 0) {
      if (store->init(dbPath()) == 0) work();
      kill(getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status));
  }
  std::string integrity() const {
    return OtherConnection(dbPath()).value("PRAGMA integrity_check");
  }
};

std::string tableSql(const OtherConnection& db, const std::string& name) {
  return db.value("SELECT sql FROM sqlite_master WHERE name='" + name + "'");
}

}  // namespace

TEST_F(JobDatabase, ANewFileGetsTheFixedSchemaAndVersion) {
  fs::remove(dbPath());
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "init complete\n"));
  const OtherConnection db(dbPath());
  EXPECT_EQ(tableSql(db, "VersionTable"), "CREATE TABLE VersionTable (Version TEXT)");
  EXPECT_EQ(
      tableSql(db, "JobTable"),
      "CREATE TABLE JobTable (Id INTEGER PRIMARY KEY,SrcPath TEXT NOT NULL,DstPath TEXT NOT "
      "NULL,DateAdd INTEGER DEFAULT (0),DateStart INTEGER DEFAULT (0),DateFinish INTEGER DEFAULT "
      "(0),Status INTEGER DEFAULT (0),JobFlag INTEGER DEFAULT (0),InsertType INTEGER DEFAULT "
      "(0),FileSize INTEGER DEFAULT (0),Rotation INTEGER DEFAULT (0),Duration INTEGER DEFAULT "
      "(0),Width INTEGER DEFAULT (0),Height INTEGER DEFAULT (0),AudioId INTEGER DEFAULT "
      "(0),SubtitlePath TEXT DEFAULT '',SubtitleId INTEGER DEFAULT (-1),SubtitleSize INTEGER "
      "DEFAULT (0),SubtitleSeek INTEGER DEFAULT (0),SubtitleColor TEXT DEFAULT '',Priority INTEGER "
      "DEFAULT (0),HwStart INTEGER DEFAULT (0),MediaType INTEGER DEFAULT(0),Rank INTEGER NOT "
      "NULL,VideoTrack INTEGER DEFAULT(0))");
  EXPECT_EQ(tableSql(db, "FileTable"),
            "CREATE TABLE FileTable (Id INTEGER PRIMARY KEY, Filename TEXT NOT NULL, FullPath TEXT "
            "NOT NULL, ModifiedTime INTEGER NOT NULL, Size INTEGER NOT NULL, "
            "UNIQUE(Filename,FullPath) )");
  EXPECT_THAT(db.rows("SELECT Version, typeof(Version) FROM VersionTable"),
              ElementsAre("20180822|text"));
}

TEST_F(JobDatabase, AReopenedFileKeepsItsJobsAndFiles) {
  ASSERT_EQ(reopen(), 0);
  queueSource("a.mp3");
  ASSERT_EQ(store->addDBFile({"a.mp3", "/share/", 5, 6}), 0);
  ASSERT_EQ(reopen(), 0);
  EXPECT_THAT(places(), ElementsAre("a:1"));
  EXPECT_EQ(store->getModifiedTime({"a.mp3", "/share/", 0, 0}), 5);
}

TEST_F(JobDatabase, AnotherVersionEmptiesTheDatabase) {
  for (const std::string change :
       {"UPDATE VersionTable SET Version='20180821'", "UPDATE VersionTable SET Version='20180822 '",
        "UPDATE VersionTable SET Version=''", "UPDATE VersionTable SET Version=NULL",
        "DELETE FROM VersionTable", "DROP TABLE VersionTable"}) {
    ASSERT_EQ(reopen(), 0);
    queueSource("a.mp3");
    store->addDBFile({"a.mp3", "/share/", 5, 6});
    restart();
    OtherConnection(dbPath()).run(change);
    ASSERT_EQ(store->init(dbPath()), 0) << change;
    EXPECT_THAT(jobs(), IsEmpty()) << change;
    EXPECT_EQ(store->getModifiedTime({"a.mp3", "/share/", 0, 0}), -1) << change;
    EXPECT_EQ(OtherConnection(dbPath()).value("SELECT Version FROM VersionTable"), "20180822");
  }
}

TEST_F(JobDatabase, AMissingVersionTableIsLoggedWithTheEnginesText) {
  OtherConnection(dbPath()).run("DROP TABLE VersionTable");
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_TRUE(log.has("sqlite3_exec 'SELECT * FROM VersionTable' fail\n"));
  EXPECT_TRUE(log.has("no such table: VersionTable\n"));
  for (const auto& line : log.lines()) {
    if (line.text == "no such table: VersionTable\n") {
      EXPECT_EQ(line.func, "init");
    }
  }
}

TEST_F(JobDatabase, ADamagedFileIsReplaced) {
  writeFile(dbPath(), std::string(8192, 'x'));
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_TRUE(log.has("file is not a database\n"));
  queueSource("a.mp3");
  EXPECT_THAT(places(), ElementsAre("a:1"));
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(JobDatabase, AFileCutShortIsReplacedOrReadButNeverCrashes) {
  ASSERT_EQ(reopen(), 0);
  for (int i = 0; i < 50; ++i) queueSource("s" + std::to_string(i) + ".mp3");
  restart();
  const std::string whole = readFile(dbPath());
  for (const size_t size : {size_t{0}, size_t{100}, size_t{4096}, whole.size() / 2}) {
    writeFile(dbPath(), whole.substr(0, size));
    const int result = store->init(dbPath());
    jobs();
    restart();
    // A damaged file does not heal by itself, but it is never taken for a good one at random.
    EXPECT_EQ(store->init(dbPath()), result) << size;
    restart();
  }
}

TEST_F(JobDatabase, AnEmptyPathTouchesNothing) {
  const auto before = std::distance(fs::directory_iterator(folder.path()), {});
  EXPECT_EQ(store->init(""), 1);
  EXPECT_TRUE(log.has("dbPath is empty\n"));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), before);
}

TEST_F(JobDatabase, APathThatCannotBeMadeFails) {
  const std::string path = folder / "missing/jobs.db";
  EXPECT_EQ(store->init(path), 1);
  EXPECT_TRUE(log.has("create database " + path + " fail\n"));
  EXPECT_TRUE(log.has("unable to open database file\n"));
}

TEST_F(JobDatabase, APathThatCannotBeOpenedNorRemovedFails) {
  const std::string path = folder / "folder";
  fs::create_directories(path + "/inside");
  EXPECT_EQ(store->init(path), 1);
  EXPECT_TRUE(log.has("can not sqlite3_open " + path + ", create a new one\n"));
  EXPECT_TRUE(log.has("unable to open database file\n"));
  EXPECT_TRUE(log.has("remove database " + path + " fail\n"));
  EXPECT_TRUE(fs::exists(path + "/inside"));
}

TEST_F(JobDatabase, AVersionWithOtherTablesFailsAtTheFirstStatementItCannotPrepare) {
  OtherConnection(dbPath()).run("ALTER TABLE JobTable RENAME COLUMN VideoTrack TO Other");
  EXPECT_EQ(store->init(dbPath()), 1);
  EXPECT_TRUE(log.hasPart("Prepare INSERT INTO JobTable (SrcPath, DstPath, DateAdd, JobFlag, "));
  EXPECT_TRUE(log.hasPart(" failed:table JobTable has no column named VideoTrack\n"));
  EXPECT_FALSE(log.has("init complete\n"));
  // The statements before it stay usable, the later ones fail.
  EXPECT_EQ(store->addDBFile({"a.mp3", "/share/", 5, 6}), 0);
  EXPECT_EQ(store->addDBJob(request(source())), 1);
}

TEST_F(JobDatabase, AnIndexOrReasonTableThatCannotBeMadeIsOnlyLogged) {
  ASSERT_EQ(reopen(), 0);
  restart();
  OtherConnection(dbPath()).run("DROP INDEX JobSource; CREATE TABLE JobSource(a);"
                                "DROP TABLE JobReason; CREATE INDEX JobReason ON JobTable(Id)");
  EXPECT_EQ(store->init(dbPath()), 0);
  EXPECT_TRUE(log.has("there is already a table named JobSource\n"));
  EXPECT_TRUE(log.has("there is already an index named JobReason\n"));
  queueSource("a.mp3");
  EXPECT_THAT(places(), ElementsAre("a:1"));
}

TEST_F(JobDatabase, AnIndexServesTheLookUpsBySourceAndRank) {
  ASSERT_EQ(store->init(dbPath()), 0);
  const OtherConnection db(dbPath());
  for (const std::string query :
       {"SELECT Rank FROM JobTable WHERE SrcPath = 'a'", "SELECT MAX(Rank) FROM JobTable",

        "UPDATE JobTable SET Rank = Rank - 1 WHERE Rank > 5"})
    EXPECT_THAT(db.value("EXPLAIN QUERY PLAN " + query), testing::HasSubstr("USING")) << query;
  EXPECT_THAT(db.rows("EXPLAIN QUERY PLAN SELECT * FROM JobTable ORDER BY Rank ASC , Rank ASC "
                      "LIMIT 10 OFFSET 5")
                  .front(),
              testing::HasSubstr("USING INDEX JobPlace"));
}

TEST_F(JobDatabase, AFileHeldByAnotherProcessIsWaitedForAndNotReplaced) {
  ASSERT_EQ(reopen(), 0);
  queueSource("a.mp3");
  restart();
  const OtherConnection other(dbPath());
  other.run("PRAGMA journal_mode=DELETE");
  other.run("BEGIN EXCLUSIVE");
  std::promise<void> opening;
  std::thread releaser([&, started = opening.get_future()]() mutable {
    started.wait();
    // Long enough for the opener to meet the lock; a later one only makes the test easier.
    std::promise<void>().get_future().wait_for(std::chrono::milliseconds(200));
    other.run("COMMIT");
  });
  opening.set_value();
  EXPECT_EQ(store->init(dbPath()), 0);
  releaser.join();
  EXPECT_THAT(places(), ElementsAre("a:1"));
}

TEST_F(JobDatabase, ADatabaseOutlivesTheDeathOfItsProcess) {
  const std::string a = source("a.mp3");
  const std::string b = source("b.mp3");
  workAndDie([&] {
    store->addDBJob(request(a));
    store->addDBJob(request(b));
  });
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_THAT(places(), ElementsAre("a:1", "b:2"));
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(JobDatabase, AfterAPowerCutAtAnyMomentTheRanksAreDense) {
  for (int i = 0; i < 8; ++i) source("s" + std::to_string(i) + ".mp3");
  workAndDie([&] {
    for (int i = 0; i < 8; ++i)
      store->addDBJob(request(folder / ("s" + std::to_string(i) + ".mp3")));
    for (const int64_t id : {2, 5}) {
      KxDBTaskParam param;
      param.id = id;
      store->deleteDBJobById(param);
    }
  });
  const std::string main = readFile(dbPath());
  const std::string wal = readFile(dbPath() + "-wal");
  ASSERT_GT(wal.size(), 8192U);
  size_t fewest = 99;
  size_t most = 0;
  for (size_t kept = 0; kept <= 16; ++kept) {
    restart();
    fs::remove(dbPath() + "-shm");
    writeFile(dbPath(), main);
    writeFile(dbPath() + "-wal", wal.substr(0, wal.size() * kept / 16));
    ASSERT_EQ(store->init(dbPath()), 0) << kept;
    const auto all = ranks();
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i], static_cast<int64_t>(i + 1)) << kept;
    EXPECT_EQ(integrity(), "ok") << kept;
    fewest = std::min(fewest, all.size());
    most = std::max(most, all.size());
  }
  EXPECT_LT(fewest, most);
}

TEST_F(JobDatabase, ReplacingAFileRemovesWhatItsDeadOwnerLeftBeside) {
  const std::string a = source("a.mp3");
  workAndDie([&] {
    store->addDBJob(request(a));
    store->exec("UPDATE VersionTable SET Version='old'");
  });
  ASSERT_TRUE(fs::exists(dbPath() + "-wal"));
  writeFile(dbPath() + "-journal", "left");
  ASSERT_EQ(store->init(dbPath()), 0);
  EXPECT_FALSE(fs::exists(dbPath() + "-journal"));
  EXPECT_THAT(jobs(), IsEmpty());
  queue(request(a));
  ASSERT_EQ(reopen(), 0);
  EXPECT_THAT(places(), ElementsAre("a:1"));
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(JobDatabase, AfterUninitNothingWorksAndNothingCrashes) {
  ASSERT_EQ(reopen(), 0);
  queueSource("a.mp3");
  EXPECT_EQ(store->uninit(), 0);
  log.clear();
  EXPECT_EQ(store->exec("SELECT 1"), 1);
  EXPECT_TRUE(log.has("sqlite3_exec 'SELECT 1' fail\n"));
  EXPECT_TRUE(log.has("database is not open\n"));
  EXPECT_EQ(store->addDBJob(request(source())), 1);
  EXPECT_TRUE(log.has("Bind failed:database is not open\n"));
  EXPECT_THAT(jobs(), IsEmpty());
  EXPECT_EQ(store->addDBFile({"a", "/b/", 1, 1}), 1);
  EXPECT_EQ(store->getModifiedTime({"a", "/b/", 1, 1}), -1);
  EXPECT_EQ(store->swapDBJobOrder(1, 2), 1);
  EXPECT_EQ(store->deleteDBJobByFilename(request("/a")), 1);
  EXPECT_EQ(store->deleteDBJobByDirname(request("/a")), 1);
  EXPECT_EQ(store->updateDBJobReason(1, "x"), 1);
  EXPECT_EQ(store->getDBJobReason(1), "");
  EXPECT_EQ(store->uninit(), 0);
}

// The thread sanitizer rightly objects to the use of a destroyed lock.
#if !defined(KX_UNDER_TSAN)
TEST_F(JobDatabase, AfterUninitTheLockIsGone) {
  ASSERT_EQ(reopen(), 0);
  EXPECT_EQ(store->mutexLock(), 0);
  EXPECT_EQ(store->mutexUnLock(), 0);
  ASSERT_EQ(store->uninit(), 0);
  EXPECT_EQ(store->mutexLock(), EINVAL);
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "DBMgr lock mutex fail\n"));
}
#endif

TEST_F(JobDatabase, TheLockKeepsOtherThreadsOut) {
  ASSERT_EQ(reopen(), 0);
  ASSERT_EQ(store->mutexLock(), 0);
  std::atomic<bool> entered = false;
  std::promise<void> started;
  std::thread other([&] {
    started.set_value();
    store->mutexLock();
    entered = true;
    store->mutexUnLock();
  });
  started.get_future().wait();
  EXPECT_FALSE(entered);
  store->mutexUnLock();
  other.join();
  EXPECT_TRUE(entered);
}

TEST_F(JobDatabase, TryLockReturnsTheThreadsErrnoEvenWhenItTookTheLock) {
  ASSERT_EQ(reopen(), 0);
  errno = 0;
  EXPECT_EQ(store->mutexTryLock(), 0);
  store->mutexUnLock();
  errno = ENOENT;
  EXPECT_EQ(store->mutexTryLock(), ENOENT);
  EXPECT_TRUE(log.has("DBMgr trylock mutex fail:" + std::to_string(ENOENT) + "\n"));
  EXPECT_EQ(store->mutexUnLock(), 0);
}

TEST_F(JobDatabase, ExecRunsStatementsAndLogsWhatTheEngineRefuses) {
  ASSERT_EQ(reopen(), 0);
  EXPECT_EQ(store->exec("CREATE TABLE t(a); INSERT INTO t VALUES(3);"), 0);
  long long value = 0;
  EXPECT_EQ(store->selectOneInt("SELECT a AS res FROM t", value), 0);
  EXPECT_EQ(value, 3);
  EXPECT_TRUE(log.has("colName[0]=res, argv[0]=3\n"));
  EXPECT_EQ(store->exec("no sql"), 1);
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "sqlite3_exec 'no sql' fail\n"));
  EXPECT_TRUE(log.has(5, "KxTransDBMgr", "near \"no\": syntax error\n"));
  value = 77;
  EXPECT_EQ(store->selectOneInt("SELECT b AS res FROM t", value), 1);
  EXPECT_TRUE(log.has("no such column: b\n"));
  EXPECT_EQ(store->selectOneInt("SELECT a AS other FROM t", value), 0);
  EXPECT_EQ(value, 77);
}

TEST_F(JobDatabase, BackupAndRestoreDoNothingAndSucceed) {
  EXPECT_EQ(store->backup(folder / "x"), 0);
  EXPECT_EQ(store->restore(folder / "x"), 0);
  EXPECT_EQ(store->accessBackupAPI(folder / "x", folder / "y"), 0);
  EXPECT_FALSE(fs::exists(folder / "x"));
  EXPECT_FALSE(fs::exists(folder / "y"));
}

namespace {

// A row as the engine hands it to a callback.
struct Row {
  std::vector<std::pair<std::string, const char*>> columns;

  int callWith(int (*callback)(void*, int, char**, char**), void* out) {
    std::vector<char*> values;
    std::vector<char*> names;
    for (auto& [name, value] : columns) {
      names.push_back(name.data());
      values.push_back(const_cast<char*>(value));
    }
    return callback(out, static_cast<int>(columns.size()), values.data(), names.data());
  }
};

}  // namespace

TEST(RowCallbacks, TheFirstResultColumnIsTakenAndTheRestIsNotLookedAt) {
  kxtest::RecordingLog log;
  long long number = 5;
  EXPECT_EQ((Row{{{"a", "1"}, {"res", "-42"}, {"res", "7"}}}.callWith(
                KxTransDBMgr::queryOneIntCallBK_, &number)),
            0);
  EXPECT_EQ(number, -42);
  EXPECT_THAT(log.texts(),
              ElementsAre("colName[0]=a, argv[0]=1\n", "colName[1]=res, argv[1]=-42\n"));
  EXPECT_EQ(log.lines()[0].func, "queryOneIntCallBK_");
  std::string text = "old";
  EXPECT_EQ((Row{{{"res", "x y"}}}.callWith(KxTransDBMgr::queryOneStringCallBK_, &text)), 0);
  EXPECT_EQ(text, "x y");
  EXPECT_EQ((Row{{{"Version", "9"}}}.callWith(KxTransDBMgr::queryVersionCallBK_, &text)), 0);
  EXPECT_EQ(text, "9");
}

TEST(RowCallbacks, WithoutTheirColumnTheyStoreNothing) {
  long long number = 5;
  std::string text = "old";
  Row row{{{"Res", "1"}, {"version", "2"}}};
  EXPECT_EQ(row.callWith(KxTransDBMgr::queryOneIntCallBK_, &number), 0);
  EXPECT_EQ(row.callWith(KxTransDBMgr::queryOneStringCallBK_, &text), 0);
  EXPECT_EQ(row.callWith(KxTransDBMgr::queryVersionCallBK_, &text), 0);
  EXPECT_EQ(number, 5);
  EXPECT_EQ(text, "old");
}

TEST(RowCallbacks, NullIsZeroOrEmpty) {
  long long number = 5;
  std::string text = "old";
  Row row{{{"res", nullptr}}};
  EXPECT_EQ(row.callWith(KxTransDBMgr::queryOneIntCallBK_, &number), 0);
  EXPECT_EQ(row.callWith(KxTransDBMgr::queryOneStringCallBK_, &text), 0);
  EXPECT_EQ(number, 0);
  EXPECT_EQ(text, "");
}

TEST(RowCallbacks, AJobRowIsMatchedByNameInAnyOrderAndUnknownColumnsAreLogged) {
  kxtest::RecordingLog log;
  std::vector<KxDBTask> tasks;
  Row row{{{"Rank", "9"},
           {"SrcPath", "/a"},
           {"srcpath", "no"},
           {"Id", "4"},
           {"DstPath", nullptr},
           {"JobFlag", "9223372036854775807"},
           {"FileSize", "5000000000"},
           {"Extra", nullptr}}};
  EXPECT_EQ(row.callWith(KxTransDBMgr::getDBTaskCallBK_, &tasks), 0);
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_FALSE(tasks[0].isEmpty);
  EXPECT_EQ(tasks[0].param.id, 4);
  EXPECT_EQ(tasks[0].param.src, "/a");
  EXPECT_EQ(tasks[0].param.dst, "");
  EXPECT_EQ(tasks[0].param.rank, 9);
  EXPECT_EQ(tasks[0].param.jobFlag, 0x7fffffffffffffffULL);
  EXPECT_EQ(tasks[0].param.fileSize, 5000000000);
  EXPECT_EQ(tasks[0].param.sid, -1);
  EXPECT_THAT(log.texts(), ElementsAre("unknow attr, colName[2]=srcpath, argv[2]=no\n",
                                       "unknow attr, colName[7]=Extra, argv[7]=(null)\n"));
  EXPECT_EQ(log.lines()[0].func, "getDBTaskCallBK_");
}

TEST(RowCallbacks, AnOldRowSkipsTheKnownUselessColumnsInSilence) {
  kxtest::RecordingLog log;
  std::vector<Kx43xDBTaskParam> tasks;
  Row row{{{"Id", "4"},
           {"FileName", "/a"},
           {"DestFileName", ""},
           {"iWidth", "640"},
           {"SubtitleCodepage", "1"},
           {"JobOKflag", "1"},
           {"SoftwareDoJob", "1"},
           {"AlbumId", nullptr},
           {"Odd", "2"}}};
  EXPECT_EQ(row.callWith(KxTransDBMgr::get43xDBTaskCallBK_, &tasks), 0);
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_EQ(tasks[0].id, 4);
  EXPECT_EQ(tasks[0].src, "/a");
  EXPECT_EQ(tasks[0].width, 640);
  EXPECT_THAT(log.texts(), ElementsAre("unknow attr, colName[8]=Odd, argv[8]=2\n"));
  EXPECT_EQ(log.lines()[0].func, "get43xDBTaskCallBK_");
}
