// The queue operations of the job store.

#include <sys/stat.h>

#include <cerrno>
#include <ctime>

#include "KxTransDBMgr.h"
#include "frame/Log.h"
#include "jobstore/JobQuery.h"
#include "jobstore/JobRow.h"
#include "jobstore/MediaLibraryMark.h"
#include "jobstore/RankKeeper.h"
#include "jobstore/Sqlite.h"
#include "jobstore/StatementTable.h"
#include "jobstore/VideoTrackChoice.h"

using namespace kxjobstore;

static constexpr const char* kLogSource = kStoreSource;

namespace {

// A request with what is found out about its source.
struct NewJob {
  const KxDBTaskParam& asked;
  int64_t fileSize;
  int32_t vid;
};

// What makes two requests equal, in the order in which three statements take it.
void bindKey(ParameterBinder& binder, const NewJob& job) {
  const KxDBTaskParam& p = job.asked;
  binder.add(p.src).add(p.insertType).add(job.fileSize).add(p.rotation).add(p.aid);
  binder.add(p.subtitle).add(p.sid).add(p.subSize).add(p.subSeek).add(p.subColor);
  binder.add(p.priority).add(p.hwStart).add(p.mediaType).add(job.vid);
}

void bindRow(ParameterBinder& binder, const NewJob& job, int64_t now, int64_t rank) {
  const KxDBTaskParam& p = job.asked;
  binder.add(p.src).add(p.dst).add(now).add(static_cast<int64_t>(p.jobFlag)).add(p.insertType);
  binder.add(job.fileSize).add(p.rotation).add(p.duration).add(p.width).add(p.height).add(p.aid);
  binder.add(p.subtitle).add(p.sid).add(p.subSize).add(p.subSeek).add(p.subColor);
  binder.add(p.priority).add(p.hwStart).add(p.mediaType).add(rank).add(job.vid);
}

// Runs a bound statement that yields no rows.
bool finish(sqlite3* db, StatementUse& use, const char* stepFailure, LogSite site) {
  if (!use.parameters().bound()) return logEngineFailure(db, "Bind failed", site);
  return use.done() || logEngineFailure(db, stepFailure, site);
}

// Reads one number for the request's key.
std::optional<int64_t> readByKey(sqlite3* db, sqlite3_stmt* statement, const NewJob& job,
                                 LogSite site) {
  StatementUse use(statement);
  bindKey(use.parameters(), job);
  if (!use.parameters().bound()) {
    logEngineFailure(db, "Bind failed", site);
  } else if (!use.row()) {
    logEngineFailure(db, "Can not get result", site);
  } else {
    return use.column(0);
  }
  return std::nullopt;
}

// The ranks that a bound statement yields. Empty after a failure.
std::optional<std::vector<int64_t>> readRanks(sqlite3* db, StatementUse& use, LogSite site) {
  std::vector<int64_t> ranks;
  while (use.row()) ranks.push_back(use.column(0));
  if (!use.failed()) return ranks;
  logEngineFailure(db, "Get ranks failed", site);
  return std::nullopt;
}

std::optional<std::vector<int64_t>> readRanksOfSource(sqlite3* db, sqlite3_stmt* statement,
                                                      const std::string& src, LogSite site) {
  StatementUse use(statement);
  if (use.bind(src)) return readRanks(db, use, site);
  logEngineFailure(db, "Bind failed", site);
  return std::nullopt;
}

// Not a job's id: refused before any statement runs.
bool isInvalidId(int64_t id, LogSite site = LogSite::here()) {
  if (id >= 0) return false;
  KX_LOG_SITE(site, "invalid database id %ld\n", static_cast<long>(id));
  return true;
}

std::string selectById(const std::string& what, int64_t id, LogSite site = LogSite::here()) {
  std::string query = "SELECT " + what + " AS res FROM JobTable WHERE Id = " + std::to_string(id);
  KX_LOG_SITE(site, "query cmd = %s\n", query.c_str());
  return query;
}

void markQueued(const std::string& src, LogSite site = LogSite::here()) {
  if (src.empty()) {
    KX_LOG_SITE(site, "srcPath == empty\n");
    return;
  }
  KX_LOG_SITE(site, "set %s MLDB TranscodeStatus to -2\n", src.c_str());
  updateMLDBTranscodeStatus(src, kMarkQueued);
}

// A query that is not run at all.
bool isRefusedQuery(const KxDBGetJobParam& query, LogSite site = LogSite::here()) {
  if (query.limit > kMaxQueryRows) {
    KX_LOG_SITE(site, "exceed max query cnt %d\n", kMaxQueryRows);
    return true;
  }
  if (query.flagSet.none()) {
    KX_LOG_SITE(site, "No flag set\n");
    return true;
  }
  return false;
}

// Dates are stored as unsigned 32-bit numbers.
unsigned long asDate(int64_t seconds) {
  return static_cast<uint32_t>(seconds);
}

}  // namespace

int KxTransDBMgr::addDBJob(const KxDBTaskParam& param) {
  if (param.src.empty()) {
    KX_LOG("addDBJob fail, src path empty\n");
    return 1;
  }
  if (param.jobFlag == 0) {
    KX_LOG("addDBJob fail, transcode config is not assigned\n");
    return 1;
  }
  struct stat info = {};
  if (stat(param.src.c_str(), &info) != 0) {
    KX_LOG_LEVEL(3, "stat %s fail:%d\n", param.src.c_str(), errno);
    return 1;
  }
  const NewJob job = {param, info.st_size, chooseVideoTrack(param.src, param.vid)};
  const LogSite site = LogSite::here();
  const auto equalJobs = readByKey(m_db, statement_(COUNT_EQUAL_JOBS), job, site);
  if (!equalJobs) return 1;
  if (*equalJobs > 0) {
    const auto stored = readByKey(m_db, statement_(READ_PROFILES), job, site);
    if (!stored) return 1;
    StatementUse merge(statement_(MERGE_PROFILES));
    merge.bind(static_cast<int64_t>(param.jobFlag) | *stored);
    bindKey(merge.parameters(), job);
    if (!finish(m_db, merge, "step filed", site)) return 1;
  } else {
    const auto rank = RankKeeper(m_db, site).nextRank();
    if (!rank) return 1;
    StatementUse insert(statement_(INSERT_JOB));
    bindRow(insert.parameters(), job, time(nullptr), *rank);
    if (!finish(m_db, insert, "step filed", site)) return 1;
  }
  markQueued(param.src);
  return 0;
}

int KxTransDBMgr::updateDBJobStatus(const KxDBTaskParam& param) {
  if (isInvalidId(param.id)) return 1;
  if (!runSql(m_db, sqlText("UPDATE JobTable SET Status = %d WHERE Id = %ld", param.status,
                            static_cast<long>(param.id))))
    return 1;
  int mark = param.status == JOB_RUNNING ? kMarkQueued : kMarkNone;
  if (param.status == JOB_WAITING) {
    const auto count = selectInt(m_db, selectById("COUNT(*)", param.id));
    if (!count) return 1;
    mark = *count == 0 ? kMarkNone : kMarkQueued;
    KX_LOG("transcodeDB query cnt=%lld, set MLDB TranscodeStatus = %d\n", *count, mark);
  }
  updateMLDBTranscodeStatus(param.src, mark);
  return 0;
}

int KxTransDBMgr::updateDBJobHwStart(const KxDBTaskParam& param) {
  if (isInvalidId(param.id)) return 1;
  // The blank before WHERE is missing on purpose: the engine refuses the statement, the column
  // is never written, and callers count on the failure.
  return asResult(runSql(m_db, sqlText("UPDATE JobTable SET HwStart = %dWHERE Id = %ld",
                                       param.hwStart, static_cast<long>(param.id))));
}

int KxTransDBMgr::updateDBJobDateStart(const KxDBTaskParam& param) {
  if (isInvalidId(param.id)) return 1;
  return asResult(runSql(m_db, sqlText("UPDATE JobTable SET DateStart = %lu WHERE Id = %ld",
                                       asDate(param.dateStart), static_cast<long>(param.id))));
}

int KxTransDBMgr::updateDBJobDateFinish(const KxDBTaskParam& param) {
  if (isInvalidId(param.id)) return 1;
  return asResult(runSql(m_db, sqlText("UPDATE JobTable SET DateFinish = %lu  WHERE Id = %ld",
                                       asDate(param.dateFinish), static_cast<long>(param.id))));
}

int KxTransDBMgr::deleteDBJobById(const KxDBTaskParam& param) {
  if (isInvalidId(param.id)) return 1;
  std::string src;
  if (!runSql(m_db, selectById("SrcPath", param.id), queryOneStringCallBK_, &src)) return 1;
  const auto id = static_cast<long long>(param.id);
  KX_LOG("delete id=%lld ---> srcPath=%s\n", id, src.c_str());
  const auto rank =
      selectInt(m_db, sqlText("SELECT Rank AS res FROM JobTable WHERE Id = %lld;", id));
  if (rank.value_or(0) == 0) {
    KX_LOG("Invalid rank\n");
    return 1;
  }
  {
    const Savepoint group(m_db);
    if (!runSql(m_db, sqlText("DELETE FROM JobTable WHERE Id = %lld", id)) ||
        !RankKeeper(m_db, LogSite::here()).closeAfter(*rank))
      return 1;
  }
  KX_LOG("set %s MLDB TranscodeStatus to 0\n", src.c_str());
  updateMLDBTranscodeStatus(src, kMarkNone);
  return 0;
}

int KxTransDBMgr::deleteDBJobByFilename(const KxDBTaskParam& param) {
  return _deleteDBJobByName(param, false);
}

int KxTransDBMgr::deleteDBJobByDirname(const KxDBTaskParam& param) {
  return _deleteDBJobByName(param, true);
}

int KxTransDBMgr::_deleteDBJobByName(const KxDBTaskParam& param, bool byFolder) {
  if (param.src.empty()) {
    KX_LOG("invalid src path %s\n", param.src.c_str());
    return 1;
  }
  const size_t index =
      DELETE_JOBS + deleteSelector(byFolder, param.status != -1, param.insertType != -1);
  {
    const Savepoint group(m_db);
    const LogSite site = LogSite::here();
    if (!(byFolder ? deleteBelowFolder_(index, param, site) : deleteOfFile_(index, param, site)))
      return 1;
  }
  updateMLDBTranscodeStatus(param.src, kMarkNone);
  KX_LOG("set %s MLDB TranscodeStatus to 0\n", param.src.c_str());
  return 0;
}

int KxTransDBMgr::bindDeleteJobByFileName(int statementIndex, const KxDBTaskParam& param) {
  const auto index = static_cast<size_t>(statementIndex);
  const size_t selector = index - DELETE_JOBS;
  ParameterBinder binder(statement_(index));
  binder.add(param.src);
  if ((selector & deleteSelector(false, false, true)) != 0) binder.add(param.insertType);
  if ((selector & deleteSelector(false, true, false)) != 0) binder.add(param.status);
  return asResult(binder.bound());
}

bool KxTransDBMgr::runDelete_(size_t index, const KxDBTaskParam& param, LogSite site) {
  StatementUse use(statement_(index));
  if (bindDeleteJobByFileName(static_cast<int>(index), param) != 0)
    return logEngineFailure(m_db, "Bind failed", site);
  return finish(m_db, use, "Exec failed", site);
}

bool KxTransDBMgr::deleteOfFile_(size_t index, const KxDBTaskParam& param, LogSite site) {
  sqlite3_stmt* const ranksOfSource = statement_(READ_RANKS_OF_SOURCE);
  const auto before = readRanksOfSource(m_db, ranksOfSource, param.src, site);
  if (!before) return false;
  if (before->empty()) return logEngineFailure(m_db, "Can not get result", site);
  if (!runDelete_(index, param, site)) return false;
  const auto after = readRanksOfSource(m_db, ranksOfSource, param.src, site);
  if (!after) return false;
  // The delete may have spared some of the file's jobs, or all of them.
  const auto deleted = missingRanks(*before, *after);
  if (deleted.empty()) return false;
  return RankKeeper(m_db, site).closeAfterAll(deleted) ||
         logEngineFailure(m_db, "Can not update", site);
}

bool KxTransDBMgr::deleteBelowFolder_(size_t index, const KxDBTaskParam& param, LogSite site) {
  if (!runDelete_(index, param, site)) return false;
  std::optional<std::vector<int64_t>> remaining;
  {
    StatementUse use(statement_(READ_ALL_RANKS));
    remaining = readRanks(m_db, use, site);
  }
  if (!remaining) return false;
  for (const int64_t rank : *remaining)
    KX_LOG_SITE(site, "value:%lld\n", static_cast<long long>(rank));
  return RankKeeper(m_db, site).closeGaps(*remaining) ||
         logEngineFailure(m_db, "Can not update", site);
}

int KxTransDBMgr::swapDBJobOrder(long long id1, long long id2) {
  long long rank1 = 0;
  long long rank2 = 0;
  {
    StatementUse use(statement_(READ_TWO_RANKS));
    if (!use.bind(id1, id2)) return asResult(logEngineFailure(m_db, "Bind failed"));
    while (use.row()) (use.column(0) == id1 ? rank1 : rank2) = use.column(1);
    if (use.failed()) return asResult(logEngineFailure(m_db, "Step failed"));
  }
  if (rank1 <= 0 || rank2 <= 0 || rank1 == rank2) {
    KX_LOG("Invalid rank : %lld:%lld, %lld:%lld\n", id1, rank1, id2, rank2);
    return 1;
  }
  StatementUse swap(statement_(SWAP_RANKS));
  swap.bind(id1, rank2, id2, rank1, id1, id2);
  return asResult(finish(m_db, swap, "Step failed", LogSite::here()));
}

int KxTransDBMgr::swapDBJobAddTime(long long id1, long long id2) {
  const auto readDate = [this](long long id, LogSite site) {
    return selectInt(
        m_db, sqlText("SELECT DateAdd AS res FROM JobTable WHERE Id = %ld", static_cast<long>(id)),
        site);
  };
  const auto writeDate = [this](long long id, long long date, LogSite site) {
    return runSql(m_db,
                  sqlText("UPDATE JobTable SET DateAdd = %ld WHERE Id = %ld",
                          static_cast<long>(date), static_cast<long>(id)),
                  site);
  };
  const LogSite site = LogSite::here();
  const auto date1 = readDate(id1, site);
  const auto date2 = readDate(id2, site);
  if (!date1 || !date2) {
    KX_LOG("invalid database id %ld\n", static_cast<long>(date1 ? id2 : id1));
    return 1;
  }
  const Savepoint group(m_db);
  return asResult(writeDate(id1, *date2, site) && writeDate(id2, *date1, site));
}

std::vector<KxDBTask> KxTransDBMgr::getDBJob(const KxDBGetJobParam& query) {
  std::vector<KxDBTask> jobs;
  if (isRefusedQuery(query)) return jobs;
  const std::string sql = pageQuery(query);
  if (!isJobColumn(query.orderBy)) {
    // Anything else would be a piece of SQL text from a client.
    KX_LOG("sqlite3_exec '%s' fail\n", sql.c_str());
    KX_LOG("no such column: %s\n", query.orderBy.c_str());
    return jobs;
  }
  if (!runSql(m_db, sql, getDBTaskCallBK_, &jobs)) jobs.clear();
  return jobs;
}

long long KxTransDBMgr::getJobCount(const KxDBGetJobParam& query) {
  if (isRefusedQuery(query)) return 0;
  return selectInt(m_db, countQuery(query)).value_or(0);
}

int KxTransDBMgr::cleanUnprocessedDBJob() {
  return asResult(runSql(m_db, sqlText("DELETE FROM JobTable WHERE Status = %d OR Status = %d",
                                       JOB_WAITING, JOB_RUNNING)));
}

int KxTransDBMgr::cleanProcessedDBJob() {
  return asResult(runSql(m_db, sqlText("DELETE FROM JobTable WHERE Status != %d AND Status != %d",
                                       JOB_WAITING, JOB_RUNNING)));
}
