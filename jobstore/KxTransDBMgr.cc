#include "KxTransDBMgr.h"

#include <sqlite3.h>

#include <cstring>

#include "Misc.h"
#include "frame/Log.h"
#include "jobstore/DatabaseFile.h"
#include "jobstore/JobReasons.h"
#include "jobstore/JobRow.h"
#include "jobstore/Sqlite.h"
#include "jobstore/StatementTable.h"

using namespace kxjobstore;

static constexpr const char* kLogSource = kStoreSource;

KxTransDBSqliteWrapper::KxTransDBSqliteWrapper() : m_statement(nullptr) {}

KxTransDBSqliteWrapper::KxTransDBSqliteWrapper(sqlite3_stmt* statement) : m_statement(statement) {}

KxTransDBSqliteWrapper::~KxTransDBSqliteWrapper() {
  sqlite3_finalize(m_statement);
}

KxTransDBMgr::KxTransDBMgr() : m_db(nullptr), m_mutex(PTHREAD_MUTEX_INITIALIZER) {}

KxTransDBMgr::~KxTransDBMgr() {
  if (m_mutexReady) uninit();
}

KxTransDBMgr* KxTransDBMgr::getInstance() {
  static KxTransDBMgr instance;
  return &instance;
}

int KxTransDBMgr::init(std::string dbPath) {
  if (!m_mutexReady && miscMutexInit(m_mutex, nullptr) != 0) return 1;
  m_mutexReady = true;
  closeDatabase_();
  if (dbPath.empty()) {
    KX_LOG("dbPath is empty\n");
    return 1;
  }
  m_db = openJobDatabase(dbPath).release();
  if (m_db == nullptr || prepareStmt() != 0) return 1;
  addIndexes(m_db);
  createReasonTable(m_db, LogSite::here());
  KX_LOG("init complete\n");
  return 0;
}

int KxTransDBMgr::prepareStmt() {
  for (const char* text : kStatementTexts) {
    auto wrapper = std::make_unique<KxTransDBSqliteWrapper>();
    if (sqlite3_prepare_v2(m_db, text, -1, &wrapper->m_statement, nullptr) != SQLITE_OK) {
      KX_LOG("Prepare %s failed:%s\n", text, engineError(m_db).c_str());
      return 1;
    }
    m_statements.push_back(wrapper.release());
  }
  return 0;
}

void KxTransDBMgr::closeDatabase_() {
  for (KxTransDBSqliteWrapper* wrapper : m_statements) delete wrapper;
  m_statements.clear();
  SqliteHandle(m_db).reset();
  m_db = nullptr;
}

int KxTransDBMgr::uninit() {
  if (!m_mutexReady) return 0;
  mutexLock();
  closeDatabase_();
  mutexUnLock();
  m_mutexReady = false;
  if (miscMutexDestroy(m_mutex) == 0) return 0;
  KX_LOG("KxTransDBMgr destroy mutex fail\n");
  return 1;
}

int KxTransDBMgr::mutexLock() {
  const int result = miscMutexLock(m_mutex);
  if (result != 0) KX_LOG("DBMgr lock mutex fail\n");
  return result;
}

int KxTransDBMgr::mutexUnLock() {
  const int result = miscMutexUnLock(m_mutex);
  if (result != 0) KX_LOG("DBMgr unlock mutex fail\n");
  return result;
}

int KxTransDBMgr::mutexTryLock() {
  const int result = miscMutexTryLock(m_mutex);
  if (result != 0) KX_LOG("DBMgr trylock mutex fail:%d\n", result);
  return result;
}

int KxTransDBMgr::exec(std::string sql) {
  return asResult(runSql(m_db, sql));
}

int KxTransDBMgr::selectOneInt(std::string sql, long long& out) {
  return asResult(runSql(m_db, sql, queryOneIntCallBK_, &out));
}

int KxTransDBMgr::backup(std::string /*path*/) {
  return 0;
}

int KxTransDBMgr::restore(std::string /*path*/) {
  return 0;
}

int KxTransDBMgr::accessBackupAPI(std::string /*from*/, std::string /*to*/) {
  return 0;
}

// Logs the columns up to the wanted one. True when it is there; its value may be NULL.
static bool findColumn(const char* wanted, int n, char** values, char** names, const char*& value,
                       LogSite site) {
  for (int i = 0; i < n; ++i) {
    KX_LOG_SITE(site, "colName[%d]=%s, argv[%d]=%s\n", i, names[i], i, values[i]);
    if (strcmp(names[i], wanted) != 0) continue;
    value = values[i];
    return true;
  }
  return false;
}

static void storeText(const char* wanted, void* out, int n, char** values, char** names,
                      LogSite site) {
  const char* value = nullptr;
  if (findColumn(wanted, n, values, names, value, site))
    *static_cast<std::string*>(out) = value != nullptr ? value : "";
}

int KxTransDBMgr::queryOneIntCallBK_(void* out, int n, char** values, char** names) {
  const char* value = nullptr;
  if (findColumn("res", n, values, names, value, LogSite::here()))
    *static_cast<long long*>(out) = myatoll(value);
  return 0;
}

int KxTransDBMgr::queryOneStringCallBK_(void* out, int n, char** values, char** names) {
  storeText("res", out, n, values, names, LogSite::here());
  return 0;
}

int KxTransDBMgr::queryVersionCallBK_(void* out, int n, char** values, char** names) {
  storeText("Version", out, n, values, names, LogSite::here());
  return 0;
}

int KxTransDBMgr::getDBTaskCallBK_(void* out, int n, char** values, char** names) {
  KxDBTaskParam param = readJobRow(n, values, names);
  KxDBTask task;
  if (task.init(param) != 0) KX_LOG("init failed\n");
  static_cast<std::vector<KxDBTask>*>(out)->push_back(std::move(task));
  return 0;
}

int KxTransDBMgr::get43xDBTaskCallBK_(void* out, int n, char** values, char** names) {
  static_cast<std::vector<Kx43xDBTaskParam>*>(out)->push_back(readLegacyRow(n, values, names));
  return 0;
}

sqlite3_stmt* KxTransDBMgr::statement_(size_t index) const {
  return index < m_statements.size() ? m_statements[index]->m_statement : nullptr;
}

int KxTransDBMgr::updateDBJobReason(int64_t id, const std::string& reason) {
  return asResult(storeReason(m_db, id, reason));
}

std::string KxTransDBMgr::getDBJobReason(int64_t id) {
  return readReason(m_db, id);
}
