#pragma once
/// @file
/// The job store: the persistent queue and the record of files already seen.

#include <pthread.h>

#include <memory>
#include <string>
#include <vector>

#include "KxDBTask.h"

struct sqlite3;
struct sqlite3_stmt;

/// Owns one prepared statement.
class KxTransDBSqliteWrapper {
 public:
  KxTransDBSqliteWrapper();
  explicit KxTransDBSqliteWrapper(sqlite3_stmt* statement);
  ~KxTransDBSqliteWrapper();
  KxTransDBSqliteWrapper(const KxTransDBSqliteWrapper&) = delete;
  KxTransDBSqliteWrapper& operator=(const KxTransDBSqliteWrapper&) = delete;

  sqlite3_stmt* m_statement;
};

/// The one owner of the job database.
///
/// Operations do not lock by themselves: every caller brackets a call, or a group of calls
/// that belong together, with mutexLock() and mutexUnLock(); only uninit() takes the lock
/// itself. Results are 0 on success and 1 on failure unless said otherwise.
class KxTransDBMgr {
 public:
  static KxTransDBMgr* getInstance();
  ~KxTransDBMgr();
  KxTransDBMgr(const KxTransDBMgr&) = delete;
  KxTransDBMgr& operator=(const KxTransDBMgr&) = delete;

  int init(std::string dbPath);
  int uninit();
  int mutexLock();
  int mutexUnLock();
  int mutexTryLock();

  int exec(std::string sql);
  int selectOneInt(std::string sql, long long& out);
  int backup(std::string path);
  int restore(std::string path);
  int accessBackupAPI(std::string from, std::string to);

  static int queryOneIntCallBK_(void* out, int n, char** values, char** names);
  static int queryOneStringCallBK_(void* out, int n, char** values, char** names);
  static int queryVersionCallBK_(void* out, int n, char** values, char** names);
  static int getDBTaskCallBK_(void* out, int n, char** values, char** names);
  static int get43xDBTaskCallBK_(void* out, int n, char** values, char** names);

  // The queue.
  int addDBJob(const KxDBTaskParam& param);
  int updateDBJobStatus(const KxDBTaskParam& param);
  int updateDBJobHwStart(const KxDBTaskParam& param);
  int updateDBJobDateStart(const KxDBTaskParam& param);
  int updateDBJobDateFinish(const KxDBTaskParam& param);
  int deleteDBJobById(const KxDBTaskParam& param);
  int deleteDBJobByFilename(const KxDBTaskParam& param);
  int deleteDBJobByDirname(const KxDBTaskParam& param);
  int swapDBJobOrder(long long id1, long long id2);
  int swapDBJobAddTime(long long id1, long long id2);
  std::vector<KxDBTask> getDBJob(const KxDBGetJobParam& query);
  /// @return the number of rows that match the query's filter; 0 after a refusal.
  long long getJobCount(const KxDBGetJobParam& query);
  int cleanUnprocessedDBJob();
  int cleanProcessedDBJob();

  /// Keeps why a job failed, or why a resource was left, for the people who ask about it.
  /// An empty text forgets it. The text goes with its row.
  int updateDBJobReason(int64_t id, const std::string& reason);
  /// @return the text kept for a job; empty when there is none.
  std::string getDBJobReason(int64_t id);

  // Tracked files.
  int addDBFile(const KxDBMgrFileParam& param);
  int updateDBFile(const KxDBMgrFileParam& param);
  int deleteDBFile(const KxDBMgrFileParam& param);
  int deleteDBFolder(const KxDBMgrFileParam& param);
  /// @return the stored time in seconds, or -1 when the pair is unknown or on any failure.
  long long getModifiedTime(const KxDBMgrFileParam& param);
  int resetModifiedTime(const KxDBMgrFileParam& param);

  // The older generation's queue.
  int import_43x_DB(std::string oldDbPath);

 private:
  KxTransDBMgr();
  int prepareStmt();
  int _deleteDBJobByName(const KxDBTaskParam& param, bool byFolder);
  int bindDeleteJobByFileName(int statementIndex, const KxDBTaskParam& param);
  int import_43xTask_(Kx43xDBTaskParam task);

  std::vector<KxTransDBSqliteWrapper*> m_statements;
  sqlite3* m_db;
  pthread_mutex_t m_mutex;
};
