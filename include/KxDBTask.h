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
  void clear();
  bool operator==(const KxDBTaskParam& other) const;
  std::string genDefaultOutput(long long extra);
  void dump();

  int64_t id;
  std::string src;
  std::string dst;
  int64_t dateAdd;
  int64_t dateStart;
  int64_t dateFinish;
  int32_t status;
  uint64_t jobFlag;
  int32_t insertType;
  int64_t fileSize;
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
  int32_t priority;
  int32_t hwStart;
  int32_t mediaType;
  int64_t rank;
  int32_t vid;
};

/// A job with a validity flag. A plain value without locking.
class KxDBTask {
 public:
  KxDBTask();
  int init(KxDBTaskParam& param);
  void clear();
  bool operator==(const KxDBTask& other) const;
  void dump();

  bool isEmpty;  ///< true until init()
  KxDBTaskParam param;
};

/// One queue query.
class KxDBGetJobParam {
 public:
  KxDBGetJobParam(std::bitset<8> flagSet, int32_t limit, std::string orderBy, int32_t offset,
                  bool isOrderASC, int32_t insertType, int32_t mediaType);
  void setValue(std::bitset<8> flagSet, int32_t limit, std::string orderBy, int32_t offset,
                bool isOrderASC, int32_t insertType, int32_t mediaType);
  void dump();

  int32_t limit;
  int32_t offset;
  int32_t insertType;
  int32_t mediaType;
  bool isOrderASC;
  std::bitset<8> flagSet;
  std::string orderBy;
};

/// One tracked file, one row of `FileTable`.
class KxDBMgrFileParam {
 public:
  KxDBMgrFileParam(std::string filename, std::string fullpath, int64_t modifiedTime,
                   int64_t filesize);
  void setValue(std::string filename, std::string fullpath, int64_t modifiedTime, int64_t filesize);
  void dump();

  std::string filename;
  std::string fullpath;
  int64_t modifiedTime;
  int64_t filesize;
};

/// One row of the older generation's `TranscodeJob` table.
class Kx43xDBTaskParam {
 public:
  Kx43xDBTaskParam();
  void dump();

  int64_t id;
  std::string src;
  std::string dst;
  int64_t dateAdd;
  int64_t dateStart;
  int64_t dateFinish;
  int32_t mediaType;
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
