#include "KxDBTask.h"

#include <cstdio>

#include "frame/Log.h"

static constexpr const char* kLogSource = "KxDBTask";

// The messages print with %lu, %d and %lld whatever the field's own width is.
static unsigned long asUnsigned(int64_t value) {
  return static_cast<unsigned long>(value);
}

static unsigned long asUnsigned(uint64_t value) {
  return static_cast<unsigned long>(value);
}

static long long asLongLong(int64_t value) {
  return value;
}

KxDBTaskParam::KxDBTaskParam() {
  clear();
}

void KxDBTaskParam::clear() {
  id = -1;
  src.clear();
  dst.clear();
  dateAdd = dateStart = dateFinish = 0;
  status = 0;
  jobFlag = 0;
  insertType = 0;
  fileSize = 0;
  rotation = duration = width = height = 0;
  aid = 0;
  sid = -1;
  subtitle.clear();
  subSize = subSeek = 0;
  subColor.clear();
  priority = hwStart = mediaType = 0;
  rank = 0;
  vid = 0;
}

bool KxDBTaskParam::operator==(const KxDBTaskParam& other) const {
  return id == other.id && src == other.src && dst == other.dst && jobFlag == other.jobFlag &&
         insertType == other.insertType && aid == other.aid && sid == other.sid &&
         subtitle == other.subtitle && subSize == other.subSize && subSeek == other.subSeek &&
         subColor == other.subColor && vid == other.vid;
}

std::string KxDBTaskParam::genDefaultOutput(long long extra) {
  char buffer[4096];
  // The order of the fields is part of what the reader of this line expects.
  snprintf(buffer, sizeof buffer, "%lld:%s:%lld:%lld:%d:%d:%llx:%lld:%lld:%dx%d:%d", asLongLong(id),
           src.c_str(), asLongLong(dateAdd), asLongLong(dateFinish), status, insertType,
           static_cast<unsigned long long>(jobFlag), asLongLong(dateStart), asLongLong(fileSize),
           width, height, duration);
  std::string line = buffer;
  if (extra >= 1) line += ":" + std::to_string(extra);
  return line + "\n";
}

void KxDBTaskParam::dump() {
  KX_LOG("id=%lu, src=%s, dst=%s\n", asUnsigned(id), src.c_str(), dst.c_str());
  KX_LOG("dateAdd=%lu, dateStart=%lu, dateFinish=%lu\n", asUnsigned(dateAdd), asUnsigned(dateStart),
         asUnsigned(dateFinish));
  KX_LOG("status=%d, jobFlag=%lu, insertType=%d\n", status, asUnsigned(jobFlag), insertType);
  KX_LOG("fileSize=%lu, rotation=%d, duration=%d\n", asUnsigned(fileSize), rotation, duration);
  KX_LOG("width=%d, height=%d, aid=%d\n", width, height, aid);
  KX_LOG("sid=%d, subtitle=%s, subSize=%d, subSeek=%d, subColor=%s\n", sid, subtitle.c_str(),
         subSize, subSeek, subColor.c_str());
  KX_LOG("priority=%d, hwStart=%d, mediaType=%d, rank=%lld, vid=%d\n", priority, hwStart, mediaType,
         asLongLong(rank), vid);
}

KxDBTask::KxDBTask() {
  clear();
}

int KxDBTask::init(KxDBTaskParam& job) {
  param = job;
  isEmpty = false;
  return 0;
}

void KxDBTask::clear() {
  isEmpty = true;
  param.clear();
}

bool KxDBTask::operator==(const KxDBTask& other) const {
  return isEmpty == other.isEmpty && param == other.param;
}

void KxDBTask::dump() {
  KX_LOG("---KxDBTask:\n");
  KX_LOG("isEmpty=%d\n", isEmpty ? 1 : 0);
  param.dump();
}

KxDBGetJobParam::KxDBGetJobParam(std::bitset<8> flags, int32_t limitNum, std::string column,
                                 int32_t firstRow, bool ascending, int32_t insert, int32_t media) {
  setValue(flags, limitNum, column, firstRow, ascending, insert, media);
}

void KxDBGetJobParam::setValue(std::bitset<8> flags, int32_t limitNum, std::string column,
                               int32_t firstRow, bool ascending, int32_t insert, int32_t media) {
  flagSet = flags;
  limit = limitNum;
  orderBy = column;
  offset = firstRow;
  isOrderASC = ascending;
  insertType = insert;
  mediaType = media;
}

void KxDBGetJobParam::dump() {
  KX_LOG("---KxDBGetJobParam---");
  KX_LOG("FlagSet: %s\n", flagSet.to_string().c_str());
  KX_LOG("LimitNum: %d\n", limit);
  KX_LOG("Offset:%d\n", offset);
  KX_LOG("InsertType: %d\n", insertType);
  KX_LOG("MediaType: %d\n", mediaType);
  KX_LOG("IsOrderASC:%d\n", isOrderASC ? 1 : 0);
  KX_LOG("OrderBy:%s\n", orderBy.c_str());
  KX_LOG("------");
}

KxDBMgrFileParam::KxDBMgrFileParam(std::string name, std::string folder, int64_t seconds,
                                   int64_t bytes) {
  setValue(name, folder, seconds, bytes);
}

void KxDBMgrFileParam::setValue(std::string name, std::string folder, int64_t seconds,
                                int64_t bytes) {
  filename = name;
  fullpath = folder;
  modifiedTime = seconds;
  filesize = bytes;
}

void KxDBMgrFileParam::dump() {
  KX_LOG("---KxDBMgrFileParam---");
  KX_LOG("Filename: %s\n", filename.c_str());
  KX_LOG("Fullpath: %s\n", fullpath.c_str());
  KX_LOG("ModifiedTime: %lld\n", asLongLong(modifiedTime));
  KX_LOG("Filesize: %lld\n", asLongLong(filesize));
}

Kx43xDBTaskParam::Kx43xDBTaskParam()
    : id(-1), dateAdd(0), dateStart(0), dateFinish(0), mediaType(0), status(0), insertType(0),
      jobFlag(0), fileSize(0), rotation(0), duration(0), width(0), height(0), aid(0), sid(-1),
      subSize(0), subSeek(0) {}

void Kx43xDBTaskParam::dump() {
  KX_LOG("dump Kx43xDBTaskParam:\n");
  KX_LOG("id=%lu, src=%s, dst=%s\n", asUnsigned(id), src.c_str(), dst.c_str());
  KX_LOG("dateAdd=%lu, dateStart=%lu, dateFinish=%lu\n", asUnsigned(dateAdd), asUnsigned(dateStart),
         asUnsigned(dateFinish));
  KX_LOG("status=%d, jobFlag=%lu, insertType=%d, mediaType=%d\n", status, asUnsigned(jobFlag),
         insertType, mediaType);
  KX_LOG("fileSize=%d, rotation=%d, duration=%d\n", fileSize, rotation, duration);
  KX_LOG("width=%d, height=%d, aid=%d\n", width, height, aid);
  KX_LOG("sid=%d, subtitle=%s, subSize=%d, subSeek=%d, subColor=%s\n", sid, subtitle.c_str(),
         subSize, subSeek, subColor.c_str());
}
