// The job queue at 100,000 rows, each figure beside plain SQLite doing the same with the same
// schema, indexes and journal.
//
// usage: queue_bench [MEDIA-LIBRARY-COMMAND]   (/bin/true when none is given)

#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "KxTransDBMgr.h"
#include "Misc.h"
#include "bench/Bench.h"
#include "host/HostLog.h"

namespace {

using kxbench::Folder;
using kxbench::Report;
using kxbench::seconds;

constexpr int kRows = 100000;
constexpr size_t kInserts = 10000;
constexpr int kBatch = 500;
constexpr size_t kMarkedInserts = 200;
constexpr int kPageRows = 1000;
constexpr const char* kMarkCommand = "/usr/local/medialibrary/bin/catalogcmd";

const std::string kFill =
    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
    std::to_string(kRows) +
    ") INSERT INTO JobTable (SrcPath, DstPath, DateAdd, JobFlag, FileSize, Rank) "
    "SELECT '/share/Public/folder' || (i / 100) || '/some recording ' || i || '.mkv', '', "
    "1700000000 + i, 3, 1000000 + i, i FROM n";

void require(bool met, const std::string& what) {
  if (!met) throw std::runtime_error(what);
}

// SQLite without the service around it.
class PlainQueue {
 public:
  // Takes over the schema of a job database, empty.
  PlainQueue(const std::string& path, const std::string& like) {
    require(sqlite3_open(path.c_str(), &m_db) == SQLITE_OK, "open " + path);
    run("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; ATTACH '" + like + "' AS like");
    for (const std::string& statement : schema()) run(statement);
    run("DETACH like");
    run(kFill);
    m_count = prepare(
        "SELECT count(*) FROM JobTable WHERE SrcPath = ? AND InsertType = 0 AND Status = 0 AND "
        "FileSize = ? AND Rotation = 0 AND AudioId = 0 AND SubtitlePath = '' AND SubtitleId = -1 "
        "AND SubtitleSize = 0 AND SubtitleSeek = 0 AND SubtitleColor = '' AND Priority = 0 AND "
        "HwStart = 0 AND MediaType = 0 AND VideoTrack = 0");
    m_highest = prepare("SELECT IFNULL(MAX(Rank), 0) FROM JobTable");
    m_insert =
        prepare("INSERT INTO JobTable (SrcPath, DstPath, FileSize, Rank) VALUES(?, '', ?, ?)");
  }
  ~PlainQueue() {
    for (sqlite3_stmt* statement : {m_count, m_highest, m_insert}) sqlite3_finalize(statement);
    sqlite3_close(m_db);
  }
  PlainQueue(const PlainQueue&) = delete;
  PlainQueue& operator=(const PlainQueue&) = delete;

  void run(const std::string& sql, sqlite3_callback callback = nullptr, void* out = nullptr) {
    require(sqlite3_exec(m_db, sql.c_str(), callback, out, nullptr) == SQLITE_OK,
            sql + ": " + sqlite3_errmsg(m_db));
  }

  void checkedInsert(const std::string& src) {
    bindSource(m_count, src);
    require(sqlite3_step(m_count) == SQLITE_ROW && sqlite3_column_int(m_count, 0) == 0, "count");
    sqlite3_reset(m_count);
    require(sqlite3_step(m_highest) == SQLITE_ROW, "highest");
    const sqlite3_int64 rank = sqlite3_column_int64(m_highest, 0) + 1;
    sqlite3_reset(m_highest);
    bindSource(m_insert, src);
    sqlite3_bind_int64(m_insert, 3, rank);
    require(sqlite3_step(m_insert) == SQLITE_DONE, "insert");
    sqlite3_reset(m_insert);
  }

 private:
  std::vector<std::string> schema() {
    std::vector<std::string> statements;
    run(
        "SELECT sql FROM like.sqlite_master WHERE tbl_name = 'JobTable' AND sql NOT NULL",
        [](void* out, int, char** values, char**) {
          static_cast<std::vector<std::string>*>(out)->emplace_back(values[0]);
          return 0;
        },
        &statements);
    return statements;
  }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    require(sqlite3_prepare_v2(m_db, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
    return statement;
  }
  static void bindSource(sqlite3_stmt* statement, const std::string& src) {
    sqlite3_bind_text(statement, 1, src.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(statement, 2, 1);
  }

  sqlite3* m_db = nullptr;
  sqlite3_stmt* m_count = nullptr;
  sqlite3_stmt* m_highest = nullptr;
  sqlite3_stmt* m_insert = nullptr;
};

// Existing sources of a kind that is not probed: names of one file, which are cheap to make.
std::vector<std::string> makeSources(const Folder& folder) {
  std::vector<std::string> sources;
  for (size_t i = 0; i < kInserts + kMarkedInserts; ++i) {
    sources.push_back(folder / ("recording " + std::to_string(i) + ".mp3"));
    if (i == 0) {
      std::ofstream(sources.back()) << 'x';
    } else {
      std::filesystem::create_hard_link(sources.front(), sources.back());
    }
  }
  return sources;
}

void queue(KxTransDBMgr* store, const std::string& src) {
  KxDBTaskParam job;
  job.src = src;
  job.jobFlag = 1;
  require(store->addDBJob(job) == 0, "addDBJob " + src);
}

void launch(const std::string& program, const std::string& src) {
  char status[] = "TranscodeStatus";
  char value[] = "-2";
  char* const argv[] = {const_cast<char*>(program.c_str()), status, const_cast<char*>(src.c_str()),
                        value, nullptr};
  pid_t pid = 0;
  require(posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ) == 0, "spawn");
  waitpid(pid, nullptr, 0);
}

// Rate of the median batch, so that a moment in which the machine is busy elsewhere does not
// decide.
template <class Insert>
double insertRate(const std::vector<std::string>& sources, const Insert& insert) {
  size_t next = 0;
  return kBatch / kxbench::medianSeconds(static_cast<int>(kInserts) / kBatch, [&] {
           for (int i = 0; i < kBatch; ++i) insert(sources[next++]);
         });
}

void measureInserts(Report& report, KxTransDBMgr* store, PlainQueue& plain,
                    const std::vector<std::string>& sources) {
  report.rate("checked insert, no media library",
              insertRate(sources, [&](const std::string& src) { queue(store, src); }),
              insertRate(sources, [&](const std::string& src) { plain.checkedInsert(src); }),
              10000);
}

void measureMarkedInserts(Report& report, KxTransDBMgr* store, PlainQueue& plain,
                          const std::vector<std::string>& sources, const std::string& command) {
  double worst = 0;
  double ours = 0;
  for (size_t i = 0; i < kMarkedInserts; ++i) {
    const double one = seconds([&] { queue(store, sources[kInserts + i]); });
    worst = std::max(worst, one);
    ours += one;
  }
  const double limit = seconds([&] {
    for (size_t i = 0; i < kMarkedInserts; ++i) {
      const std::string& src = sources[kInserts + i];
      plain.checkedInsert(src);
      launch(command, src);
    }
  });
  report.time("checked insert with its command, mean", ours / kMarkedInserts * 1000,
              limit / kMarkedInserts * 1000, 10);
  report.time("checked insert with its command, worst", worst * 1000, limit / kMarkedInserts * 1000,
              0);
}

double pageMilliseconds(KxTransDBMgr* store, const KxDBGetJobParam& query) {
  return 1000 * kxbench::medianSeconds(9, [&] {
           require(store->getDBJob(query).size() == static_cast<size_t>(query.limit), "page");
         });
}

double pageMilliseconds(PlainQueue& plain, const std::string& sql) {
  return 1000 * kxbench::medianSeconds(9, [&] {
           int rows = 0;
           plain.run(
               sql,
               [](void* out, int, char**, char**) {
                 ++*static_cast<int*>(out);
                 return 0;
               },
               &rows);
           require(rows > 0, "plain page");
         });
}

void measurePages(Report& report, KxTransDBMgr* store, PlainQueue& plain) {
  for (const int offset : {0, kRows / 2, kRows - kPageRows}) {
    const std::string from = " at offset " + std::to_string(offset);
    const std::string page = "ORDER BY Rank, Rank LIMIT 1000 OFFSET " + std::to_string(offset);
    report.time("page of 1,000 rows" + from,
                pageMilliseconds(store, {1U << 4, kPageRows, "Rank", offset, true, -1, 0}),
                pageMilliseconds(plain, "SELECT * FROM JobTable " + page), 10);
    report.time(
        "page of 1,000 waiting rows" + from,
        pageMilliseconds(store, {1U << JOB_WAITING, kPageRows, "Rank", offset, true, -1, 0}),
        pageMilliseconds(plain, "SELECT * FROM JobTable WHERE Status = 0 " + page), 10);
  }
  report.time("first 16 waiting rows by priority",
              pageMilliseconds(store, {1U << JOB_WAITING, 16, "Priority", 0, true, -1, 0}),
              pageMilliseconds(plain, "SELECT * FROM JobTable WHERE Status = 0 "
                                      "ORDER BY Priority, Rank LIMIT 16"),
              0);
}

// The last row first, so that each place still means what it says.
void measureDeletes(Report& report, KxTransDBMgr* store, PlainQueue& plain) {
  for (const auto& [place, id] : {std::pair{"tail", kRows}, {"middle", kRows / 2}, {"head", 1}}) {
    KxDBTaskParam job;
    job.id = id;
    const double ours = seconds([&] { require(store->deleteDBJobById(job) == 0, "delete"); });
    const std::string row = std::to_string(id);
    const double limit = seconds([&] {
      plain.run("BEGIN; DELETE FROM JobTable WHERE Id = " + row);
      plain.run("UPDATE JobTable SET Rank = Rank - 1 WHERE Rank > " + row);
      plain.run("COMMIT");
    });
    report.time(std::string("delete by id at the ") + place, ours * 1000, limit * 1000, 0);
  }
}

int run(const std::string& command) {
  const Folder folder;
  kxhost::LogSettings log;
  log.file = folder / "log";
  log.standardError = false;
  kxhost::configureLog(log);
  miscSetSystemRoot(folder.path().string());

  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  require(store->init(folder / "jobs.db") == 0, "init");
  PlainQueue plain(folder / "plain.db", folder / "jobs.db");
  require(store->exec(kFill) == 0, "fill");
  const auto sources = makeSources(folder);

  Report report;
  measureInserts(report, store, plain, sources);
  measurePages(report, store, plain);
  const std::string installed = miscSystemPath(kMarkCommand);
  std::filesystem::create_directories(std::filesystem::path(installed).parent_path());
  std::filesystem::create_symlink(command, installed);
  measureMarkedInserts(report, store, plain, sources, command);
  std::filesystem::remove(installed);
  measureDeletes(report, store, plain);
  store->uninit();
  return report.exitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::filesystem::canonical(argc > 1 ? argv[1] : "/bin/true"));
  } catch (const std::exception& error) {
    fprintf(stderr, "queue_bench: %s\n", error.what());
    return 2;
  }
}
