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
namespace kxjobstore {
struct LogSite;
}

/// Owns one prepared statement and finalizes it. Not thread-safe.
class KxTransDBSqliteWrapper {
 public:
  /// Owns nothing.
  KxTransDBSqliteWrapper();
  /// Takes over a statement; NULL is accepted.
  explicit KxTransDBSqliteWrapper(sqlite3_stmt* statement);
  ~KxTransDBSqliteWrapper();
  KxTransDBSqliteWrapper(const KxTransDBSqliteWrapper&) = delete;
  KxTransDBSqliteWrapper& operator=(const KxTransDBSqliteWrapper&) = delete;

  sqlite3_stmt* m_statement;
};

/// The one owner of the job database: the queue (`JobTable`), the files that folder watching
/// has seen (`FileTable`) and the schema version (`VersionTable`).
///
/// Locking: operations do not lock by themselves. Every caller brackets a call, or a group of
/// calls that belong together, with mutexLock() and mutexUnLock(); the lock is not recursive.
/// Only init() and uninit() are called without it. Lock order: manager, unit, job store.
///
/// Results are 0 on success and 1 on failure unless said otherwise; every failure is logged.
/// Rows that an operation changed before it failed stay changed. Without an open database
/// every operation fails.
///
/// Several queue operations run the media library's command and block, lock held, until it
/// has ended; its failure is logged and does not change their result.
class KxTransDBMgr {
 public:
  /// @return the one instance, made on first use.
  static KxTransDBMgr* getInstance();
  /// Does what uninit() does when that was not called.
  ~KxTransDBMgr();
  KxTransDBMgr(const KxTransDBMgr&) = delete;
  KxTransDBMgr& operator=(const KxTransDBMgr&) = delete;

  /// Opens the job database and prepares its statements; called once before anything else,
  /// from one thread. A file that is absent, unreadable or of another schema version is
  /// replaced by an empty database: there is no migration. A file that another process holds
  /// is waited for, at most ten seconds.
  int init(std::string dbPath);
  /// Closes the database and destroys the lock. No other thread may use or wait for the job
  /// store any more. A second call does nothing.
  int uninit();
  /// Takes the lock. @return 0, or the error number of the lock call.
  int mutexLock();
  /// Releases the lock. @return 0, or the error number of the lock call.
  int mutexUnLock();
  /// Tries to take the lock. @return the calling thread's errno, whether the lock was taken or
  /// not: the result does not tell the outcome.
  int mutexTryLock();

  /// Runs SQL text, which may hold several statements; never pass on text of a client.
  int exec(std::string sql);
  /// Runs SQL text and stores the last row's column "res" in @p out, which is left alone when
  /// there is none. Never pass on text of a client.
  int selectOneInt(std::string sql, long long& out);
  /// Does nothing and succeeds.
  int backup(std::string path);
  /// Does nothing and succeeds.
  int restore(std::string path);
  /// Does nothing and succeeds.
  int accessBackupAPI(std::string from, std::string to);

  /// Row callbacks for sqlite3_exec(); each returns 0, so that all rows are visited. @p n
  /// columns with @p names and @p values, which may be NULL.
  /// @param out a `long long` that receives the first column named "res"
  static int queryOneIntCallBK_(void* out, int n, char** values, char** names);
  /// @param out a `std::string` that receives the first column named "res"
  static int queryOneStringCallBK_(void* out, int n, char** values, char** names);
  /// @param out a `std::string` that receives the first column named "Version"
  static int queryVersionCallBK_(void* out, int n, char** values, char** names);
  /// @param out a `std::vector<KxDBTask>` that gets the row of `JobTable` appended
  static int getDBTaskCallBK_(void* out, int n, char** values, char** names);
  /// @param out a `std::vector<Kx43xDBTaskParam>` that gets the row of `TranscodeJob` appended
  static int get43xDBTaskCallBK_(void* out, int n, char** values, char** names);

  // The queue. Ranks are dense and count from 1; see the single operations for the exceptions.

  /// Queues a job at the end, or adds its profiles to an equal job that waits. Looks at the
  /// source itself: its size is what is stored, and the video track with the largest picture
  /// replaces the asked one where the file can be probed. Id, dates, status, rank and file
  /// size of @p param are not used.
  int addDBJob(const KxDBTaskParam& param);
  /// Writes `status` of the row `id` and sets the media library's mark of `src`. A missing row
  /// is not an error.
  int updateDBJobStatus(const KxDBTaskParam& param);
  /// Always fails: the column is never written.
  int updateDBJobHwStart(const KxDBTaskParam& param);
  /// Writes `dateStart` of the row `id`, cut to an unsigned 32-bit number.
  int updateDBJobDateStart(const KxDBTaskParam& param);
  /// Writes `dateFinish` of the row `id`, cut to an unsigned 32-bit number.
  int updateDBJobDateFinish(const KxDBTaskParam& param);
  /// Deletes the row `id`; those behind it move up. Fails when there is no such row.
  int deleteDBJobById(const KxDBTaskParam& param);
  /// Deletes the jobs of the source `src` whose status and insert type equal those given (-1:
  /// any); those behind them move up. Fails when no job was deleted.
  int deleteDBJobByFilename(const KxDBTaskParam& param);
  /// As deleteDBJobByFilename() for every source whose path begins with `src`: a plain prefix,
  /// so pass convertFolderPath() of a folder to spare its siblings. The remaining ranks are
  /// made consecutive, but the first one stays as it is.
  int deleteDBJobByDirname(const KxDBTaskParam& param);
  /// Lets two jobs exchange places. Fails for a missing job and for a job with itself.
  int swapDBJobOrder(long long id1, long long id2);
  /// Lets two jobs exchange their add times. Fails without writing when one is missing.
  int swapDBJobAddTime(long long id1, long long id2);
  /// @return the row with an id; empty when there is none.
  std::vector<KxDBTask> getDBJobById(int64_t id);
  /// @return the rows of one source, the oldest first.
  std::vector<KxDBTask> getDBJobBySource(const std::string& src);
  /// One page of the queue, at most 1000 rows; `orderBy` is a column name of `JobTable`.
  /// Exact for one status at a time: with several, a filter for insert or media type applies
  /// to the last status only, and a media type with every status needs an insert type.
  /// @return the rows; empty on any failure.
  std::vector<KxDBTask> getDBJob(const KxDBGetJobParam& query);
  /// @return the number of rows that match the query's filter; 0 on any failure. The query's
  /// limit is checked as for getDBJob(), but neither it nor the offset limits the count.
  long long getJobCount(const KxDBGetJobParam& query);
  /// Deletes the jobs in status 0 and 3. Ranks stay as they are.
  int cleanUnprocessedDBJob();
  /// Deletes the jobs in any other status. Ranks stay as they are.
  int cleanProcessedDBJob();

  /// Keeps why a job failed, or why a resource was left, for the people who ask about it.
  /// An empty text forgets it. The text goes with its row. Fails when there is no such row.
  int updateDBJobReason(int64_t id, const std::string& reason);
  /// @return the text kept for a job; empty when there is none.
  std::string getDBJobReason(int64_t id);

  // Tracked files. Rows are keyed by file name and folder; pass convertFolderPath() of the
  // folder everywhere.

  /// Records a file, or a new time of a known one, whose stored size stays. Refuses empty
  /// names and times below 1.
  int addDBFile(const KxDBMgrFileParam& param);
  /// Records a new time. An unknown file is not an error.
  int updateDBFile(const KxDBMgrFileParam& param);
  /// Forgets one file. An unknown file is not an error.
  int deleteDBFile(const KxDBMgrFileParam& param);
  /// Forgets every file whose folder begins with `fullpath`: a plain prefix.
  int deleteDBFolder(const KxDBMgrFileParam& param);
  /// @return the stored time in seconds, or -1 when the pair is unknown or on any failure.
  long long getModifiedTime(const KxDBMgrFileParam& param);
  /// Sets the time of the files directly in the folder to 1: they must be looked at again.
  int resetModifiedTime(const KxDBMgrFileParam& param);
  /// @return the files recorded directly in a folder, in any order.
  std::vector<KxDBMgrFileParam> getDBFiles(const std::string& fullpath);
  /// @return the folders of recorded files that are the given one or lie in it; it ends in "/".
  std::vector<std::string> getDBFolders(const std::string& fullpath);

  /// Appends the jobs of the older generation's database, oldest first. Jobs that cannot be
  /// taken over are logged and skipped; the rest is stored in one go.
  /// @return 0 when the old file was read and the jobs are stored, 1 otherwise.
  int import_43x_DB(std::string oldDbPath);
  /// The same.
  /// @param[out] skipped number of jobs that could not be taken over
  int import_43x_DB(std::string oldDbPath, size_t& skipped);

 private:
  KxTransDBMgr();
  int prepareStmt();
  void closeDatabase_();
  sqlite3_stmt* statement_(size_t index) const;
  int _deleteDBJobByName(const KxDBTaskParam& param, bool byFolder);
  int bindDeleteJobByFileName(int statementIndex, const KxDBTaskParam& param);
  bool runDelete_(size_t index, const KxDBTaskParam& param, kxjobstore::LogSite site);
  bool deleteOfFile_(size_t index, const KxDBTaskParam& param, kxjobstore::LogSite site);
  bool deleteBelowFolder_(size_t index, const KxDBTaskParam& param, kxjobstore::LogSite site);
  int import_43xTask_(Kx43xDBTaskParam task);

  std::vector<KxTransDBSqliteWrapper*> m_statements;
  sqlite3* m_db;
  pthread_mutex_t m_mutex;
  bool m_mutexReady = false;
};
