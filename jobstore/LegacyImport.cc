// Takes over the queue of the older generation.

#include <sys/stat.h>

#include "KxTransDBMgr.h"
#include "frame/Log.h"
#include "jobstore/LegacyFile.h"
#include "jobstore/RankKeeper.h"
#include "jobstore/Sqlite.h"
#include "jobstore/StatementTable.h"

using namespace kxjobstore;

static constexpr const char* kLogSource = kStoreSource;

namespace {

constexpr const char* kReadAll = "SELECT * FROM TranscodeJob ORDER BY DateAdded ASC";

bool isImportable(const std::string& path, LogSite site) {
  struct stat info = {};
  if (path.empty()) {
    KX_LOG_SITE(site, "empty DB path\n");
  } else if (stat(path.c_str(), &info) != 0) {
    KX_LOG_SITE(site, "DB path %s is invalid\n", path.c_str());
  } else if (!S_ISREG(info.st_mode)) {
    KX_LOG_SITE(site, "%s is not a regular file\n", path.c_str());
  } else {
    return true;
  }
  return false;
}

std::optional<std::vector<Kx43xDBTaskParam>> readLegacyJobs(const std::string& path, LogSite site) {
  LegacyFile old;
  if (const auto error = old.open(path)) {
    KX_LOG_SITE(site, "open %s fail, can not import old db\n", path.c_str());
    KX_LOG_SITE(site, "err log: %s\n", error->c_str());
    return std::nullopt;
  }
  std::vector<Kx43xDBTaskParam> jobs;
  const auto error = trySql(old.get(), kReadAll, KxTransDBMgr::get43xDBTaskCallBK_, &jobs);
  if (!error) return jobs;
  KX_LOG_SITE(site, "sqlite3_exec '%s' fail\n ", kReadAll);
  KX_LOG_SITE(site, "%s\n", error->c_str());
  return std::nullopt;
}

// The older generation counted the kinds of media from 0.
int32_t currentMediaType(int32_t legacy) {
  return legacy >= 0 && legacy <= 2 ? legacy + 1 : 2;
}

// A job that was running waits again.
int32_t currentStatus(int32_t legacy) {
  return legacy == JOB_RUNNING ? static_cast<int32_t>(JOB_WAITING) : legacy;
}

}  // namespace

int KxTransDBMgr::import_43x_DB(std::string oldDbPath) {
  size_t skipped = 0;
  return import_43x_DB(std::move(oldDbPath), skipped);
}

int KxTransDBMgr::import_43x_DB(std::string oldDbPath, size_t& skipped) {
  skipped = 0;
  const LogSite site = LogSite::here();
  if (!isImportable(oldDbPath, site)) return 1;
  const auto jobs = readLegacyJobs(oldDbPath, site);
  if (!jobs) return 1;
  Savepoint all(m_db);
  for (const Kx43xDBTaskParam& job : *jobs) {
    Savepoint one(m_db);
    if (import_43xTask_(job) == 0) continue;
    one.rollBack();
    ++skipped;
    KX_LOG("import oldId=%lld, name=%s fail\n", static_cast<long long>(job.id), job.src.c_str());
  }
  const auto error = all.release();
  if (!error) return 0;
  KX_LOG("%s\n", error->c_str());
  return 1;
}

int KxTransDBMgr::import_43xTask_(Kx43xDBTaskParam task) {
  const auto rank = RankKeeper(m_db, LogSite::here()).nextRank();
  if (!rank) {
    KX_LOG("query max rank fail\n");
    return 1;
  }
  const int64_t status = currentStatus(task.status);
  const int64_t mediaType = currentMediaType(task.mediaType);
  StatementUse use(statement_(INSERT_LEGACY_JOB));
  if (!use.bind(task.src, task.dst, task.dateAdd, task.dateStart, task.dateFinish,
                static_cast<int64_t>(task.jobFlag), task.insertType, task.fileSize,
                task.rotation % 360, task.duration, task.width, task.height, task.aid,
                task.subtitle, task.sid, task.subSize, task.subSeek, task.subColor, mediaType,
                *rank, status))
    return asResult(logEngineFailure(m_db, "Bind failed"));
  return asResult(use.done() || logEngineFailure(m_db, "step filed"));
}
