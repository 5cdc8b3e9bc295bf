// The record of files already seen.

#include <sqlite3.h>

#include "KxTransDBMgr.h"
#include "frame/Log.h"
#include "jobstore/Sqlite.h"
#include "jobstore/StatementTable.h"

using namespace kxjobstore;

static constexpr const char* kLogSource = kStoreSource;

namespace {

template <class... Text>
bool allGiven(LogSite site, const Text&... text) {
  if ((!text.empty() && ...)) return true;
  KX_LOG_SITE(site, "Invalid params\n");
  return false;
}

// Runs a statement that yields no rows. Its messages have no engine text.
template <class... Values>
int runOnce(sqlite3_stmt* statement, LogSite site, const Values&... values) {
  StatementUse use(statement);
  if (!use.bind(values...)) {
    KX_LOG_SITE(site, "Bind failed:\n");
    return 1;
  }
  if (use.done()) return 0;
  KX_LOG_SITE(site, "step filed\n");
  return 1;
}

}  // namespace

int KxTransDBMgr::addDBFile(const KxDBMgrFileParam& param) {
  if (param.filename.empty() || param.fullpath.empty() || param.modifiedTime < 1) {
    KX_LOG("Invalid params\n");
    return 1;
  }
  int64_t known = 0;
  {
    StatementUse count(statement_(COUNT_FILE));
    if (!count.bind(param.filename, param.fullpath))
      return asResult(logEngineFailure(m_db, "Bind failed"));
    if (!count.row()) return asResult(logEngineFailure(m_db, "Can not get result"));
    known = count.column(0);
  }
  if (known != 0) return updateDBFile(param);
  StatementUse insert(statement_(INSERT_FILE));
  if (!insert.bind(param.filename, param.fullpath, param.modifiedTime, param.filesize))
    return asResult(logEngineFailure(m_db, "Bind failed"));
  return asResult(insert.done() || logEngineFailure(m_db, "step filed"));
}

int KxTransDBMgr::updateDBFile(const KxDBMgrFileParam& param) {
  const LogSite site = LogSite::here();
  if (!allGiven(site, param.filename, param.fullpath)) return 1;
  return runOnce(statement_(UPDATE_FILE_TIME), site, param.modifiedTime, param.filename,
                 param.fullpath);
}

int KxTransDBMgr::deleteDBFile(const KxDBMgrFileParam& param) {
  const LogSite site = LogSite::here();
  if (!allGiven(site, param.filename, param.fullpath)) return 1;
  return runOnce(statement_(DELETE_FILE), site, param.filename, param.fullpath);
}

int KxTransDBMgr::deleteDBFolder(const KxDBMgrFileParam& param) {
  const LogSite site = LogSite::here();
  if (!allGiven(site, param.fullpath)) return 1;
  return runOnce(statement_(DELETE_FILES_BELOW), site, param.fullpath);
}

long long KxTransDBMgr::getModifiedTime(const KxDBMgrFileParam& param) {
  if (!allGiven(LogSite::here(), param.filename, param.fullpath)) return -1;
  StatementUse use(statement_(READ_FILE_TIME));
  if (!use.bind(param.filename, param.fullpath)) {
    KX_LOG("Bind failed:\n");
    return -1;
  }
  if (use.row()) return use.column(0);
  KX_LOG("Can not get result:%d,%s\n", sqlite3_errcode(m_db), engineError(m_db).c_str());
  return -1;
}

int KxTransDBMgr::resetModifiedTime(const KxDBMgrFileParam& param) {
  const LogSite site = LogSite::here();
  if (!allGiven(site, param.fullpath)) return 1;
  return runOnce(statement_(RESET_FILE_TIMES), site, param.fullpath);
}
