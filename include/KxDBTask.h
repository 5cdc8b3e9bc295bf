#pragma once
/// @file
/// Plain records of the job store: one job, one queue query, one tracked file.

#include <bitset>
#include <cstdint>
#include <string>

/// States of a job row.
enum KxJobStatus_e : int32_t {
  JOB_WAITING = 0,    ///< waits in the queue
  JOB_DONE = 1,       ///< every profile is in place
  JOB_ERROR = 2,      ///< failed
  JOB_RUNNING = 3,    ///< a unit works on it
  JOB_CANCELLED = 5,  ///< cancelled or skipped
};

/// How a job came into the queue (`KxDBTaskParam::insertType`); -1 in a query means any.
enum KxInsertType_e : int32_t {
  INSERT_WATCHER = 0,  ///< found in a watched folder
  INSERT_USER = 1,     ///< asked for by a client
};

/// One transcode job, one row of `JobTable`. A plain value without locking.
class KxDBTaskParam {
 public:
  KxDBTaskParam();
  /// Restores the defaults.
  void clear();
  /// Compares what identifies a request: id, src, dst, jobFlag, insertType, aid, sid,
  /// subtitle, subSize, subSeek, subColor and vid. Dates, status, sizes, rank and the rest are
  /// not compared.
  bool operator==(const KxDBTaskParam& other) const;
  /// The job as one line of text: id:src:dateAdd:dateFinish:status:insertType:jobFlag (hex):
  /// dateStart:fileSize:WIDTHxHEIGHT:duration, then ":extra" when @p extra is 1 or more, then a
  /// newline. The part before the extra is cut to 4095 bytes.
  std::string genDefaultOutput(long long extra);
  /// Logs the record.
  void dump();

  int64_t id;            ///< row id; -1: not yet stored (default)
  std::string src;       ///< full path of the source
  std::string dst;       ///< output path or folder chosen by the client
  int64_t dateAdd;       ///< queued, seconds since the epoch
  int64_t dateStart;     ///< started, seconds since the epoch; 0: not yet
  int64_t dateFinish;    ///< finished, seconds since the epoch; 0: not yet
  int32_t status;        ///< KxJobStatus_e
  uint64_t jobFlag;      ///< wanted profiles, bit i for row i of the profile table
  int32_t insertType;    ///< KxInsertType_e
  int64_t fileSize;      ///< of the source, bytes
  int32_t rotation;      ///< of the source, degrees
  int32_t duration;      ///< of the source, seconds
  int32_t width;         ///< of the source, pixels
  int32_t height;        ///< of the source, pixels
  int32_t aid;           ///< audio track to use, from 0
  int32_t sid;           ///< subtitle track to burn in; -1: none (default)
  std::string subtitle;  ///< external subtitle file; empty: none
  int32_t subSize;       ///< subtitle font size
  int32_t subSeek;       ///< subtitle time shift
  std::string subColor;  ///< subtitle colour
  int32_t priority;      ///< scheduling priority; lower goes first
  int32_t hwStart;       ///< hardware-start marker
  int32_t mediaType;     ///< kind of media; 0 in a query: any
  int64_t rank;          ///< place in the queue, from 1
  int32_t vid;           ///< video track to transcode, from 0
};

/// A job with a validity flag. A plain value without locking.
class KxDBTask {
 public:
  /// An empty job.
  KxDBTask();
  /// Takes a copy of a job. @return 0
  int init(KxDBTaskParam& job);
  /// Makes the job empty.
  void clear();
  /// True when the flags and the records (KxDBTaskParam::operator==) are equal.
  bool operator==(const KxDBTask& other) const;
  /// Logs flag and record.
  void dump();

  bool isEmpty;  ///< true until init()
  KxDBTaskParam param;
};

/// One queue query. A plain value without locking.
class KxDBGetJobParam {
 public:
  /// See setValue().
  KxDBGetJobParam(std::bitset<8> flags, int32_t limitNum, std::string column, int32_t firstRow,
                  bool ascending, int32_t insert, int32_t media);
  /// @param flags wanted states: bits 0, 1, 2, 3 and 5 by status, bit 4 for every state
  /// @param limitNum rows of a page, at most 1000; a negative one means no limit
  /// @param column column of `JobTable` to order by
  /// @param firstRow rows to skip
  /// @param ascending order of the column and of the rank behind it
  /// @param insert KxInsertType_e; -1: any
  /// @param media kind of media; 0: any
  void setValue(std::bitset<8> flags, int32_t limitNum, std::string column, int32_t firstRow,
                bool ascending, int32_t insert, int32_t media);
  /// Logs the query.
  void dump();

  int32_t limit;
  int32_t offset;
  int32_t insertType;
  int32_t mediaType;
  bool isOrderASC;
  std::bitset<8> flagSet;
  std::string orderBy;
};

/// One tracked file, one row of `FileTable`. A plain value without locking.
class KxDBMgrFileParam {
 public:
  /// See setValue().
  KxDBMgrFileParam(std::string name, std::string folder, int64_t seconds, int64_t bytes);
  /// @param name file name without folder
  /// @param folder folder that holds the file
  /// @param seconds modification time, since the epoch
  /// @param bytes size
  void setValue(std::string name, std::string folder, int64_t seconds, int64_t bytes);
  /// Logs the record.
  void dump();

  std::string filename;
  std::string fullpath;
  int64_t modifiedTime;
  int64_t filesize;
};

/// One row of the older generation's `TranscodeJob` table; fields as in KxDBTaskParam. A plain
/// value without locking.
class Kx43xDBTaskParam {
 public:
  /// No id, no subtitle track, everything else 0.
  Kx43xDBTaskParam();
  /// Logs the record.
  void dump();

  int64_t id;
  std::string src;
  std::string dst;
  int64_t dateAdd;
  int64_t dateStart;
  int64_t dateFinish;
  int32_t mediaType;  ///< counted from 0 there, from 1 in KxDBTaskParam
  int32_t status;
  int32_t insertType;
  uint64_t jobFlag;
  int32_t fileSize;
  int32_t rotation;
  int32_t duration;
  int32_t width;
  int32_t height;
  int32_t aid;
  int32_t sid;
  std::string subtitle;
  int32_t subSize;
  int32_t subSeek;
  std::string subColor;
};
