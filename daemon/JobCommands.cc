#include "daemon/JobCommands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <ctime>

#include "KxHostPlatform.h"
#include "KxMediainfo.h"
#include "Misc.h"
#include "daemon/AccessRule.h"
#include "daemon/FolderWatch.h"
#include "daemon/LibraryLocks.h"
#include "engines/SubtitleFilter.h"

namespace xcoded {
namespace {

constexpr int64_t kMaxTrack = 1000;
constexpr int64_t kMaxPriority = 1000;
constexpr int64_t kAllProfiles = 0x7f;
constexpr std::chrono::seconds kStopPatience{5};
constexpr unsigned long kAnyStatus = 1UL << 4;

constexpr std::array<const char*, 25> kColumns = {
    "Id",           "SrcPath",    "DstPath",      "DateAdd",      "DateStart",
    "DateFinish",   "Status",     "JobFlag",      "InsertType",   "FileSize",
    "Rotation",     "Duration",   "Width",        "Height",       "AudioId",
    "SubtitlePath", "SubtitleId", "SubtitleSize", "SubtitleSeek", "SubtitleColor",
    "Priority",     "HwStart",    "MediaType",    "Rank",         "VideoTrack"};

KxTransDBMgr* store() {
  return KxTransDBMgr::getInstance();
}

int32_t int32(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

int64_t askedId(RequestJson& json, const char* key = "id") {
  return json.integer(key, 1, INT64_MAX);
}

std::string noJob(int64_t id) {
  return "there is no job " + std::to_string(id);
}

Answer answerOf(const std::string& failure) {
  return failure.empty() ? Answer() : Answer::failure(failure);
}

// The rows that a query or count asks for.
KxDBGetJobParam askedRows(RequestJson& json, int32_t firstRow) {
  const auto flags = static_cast<unsigned long>(json.integer("flags", 1, 255, kAnyStatus));
  const int32_t insertType = int32(json.integer("insertType", -1, INT32_MAX, -1));
  const int32_t mediaType = int32(json.integer("mediaType", 0, INT32_MAX, 0));
  const int32_t limit = int32(json.integer("limit", 1, 1000, 1000));
  const int64_t offset = json.integer("offset", 0, INT32_MAX, 0);
  const bool isAscending = json.flag("asc", true);
  const std::string orderBy = json.text("orderBy", 32, "Rank");
  json.finish();
  if (firstRow < 0 || offset + firstRow > INT32_MAX)
    throw RequestError("the first row wanted is out of range");
  if (std::find(kColumns.begin(), kColumns.end(), orderBy) == kColumns.end())
    throw RequestError("\"orderBy\" is not a column of the queue");
  const std::bitset<8> statuses(flags & 0x3f);
  if (statuses.none()) throw RequestError("\"flags\" names no status");
  const bool isFiltered = insertType != -1 || mediaType != 0;
  if (isFiltered && !statuses[4] && statuses.count() > 1)
    throw RequestError("\"insertType\" and \"mediaType\" go with a single status or with all");
  if (mediaType != 0 && insertType == -1 && statuses[4])
    throw RequestError("\"mediaType\" goes with a single status or with \"insertType\"");
  return KxDBGetJobParam(statuses, limit, orderBy, int32(offset + firstRow), isAscending,
                         insertType, mediaType);
}

void checkSource(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0)
    throw RequestError("the source cannot be read: " + std::string(strerror(errno)));
  if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
    throw RequestError("the source is neither a file nor a folder");
}

std::string askedSubtitle(RequestJson& json) {
  if (!json.has("subtitle") || json.text("subtitle", PATH_MAX - 1, "").empty()) return "";
  std::string path = json.path("subtitle");
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0)
    throw RequestError("the subtitle cannot be read: " + std::string(strerror(errno)));
  if (S_ISLNK(info.st_mode)) throw RequestError("the subtitle is a link: name the file itself");
  if (!S_ISREG(info.st_mode)) throw RequestError("the subtitle is no file");
  return path;
}

std::string askedColour(RequestJson& json) {
  std::string colour = json.text("subColor", 32, "");
  if (!colour.empty() && !engines::isSubtitleColour(colour))
    throw RequestError("\"subColor\" is no colour: a name such as yellow, or #rrggbb");
  return colour;
}

KxDBTaskParam askedJob(const KxSockData_s& request) {
  RequestJson json(request);
  KxDBTaskParam job;
  // A name that is not UTF-8 cannot stand in JSON; block 1 takes any bytes.
  job.src = json.has("src") ? json.path("src") : requestPath(request, 1);
  if (json.has("dst") && !json.text("dst", PATH_MAX - 1, "").empty()) job.dst = json.path("dst");
  job.jobFlag = static_cast<uint64_t>(json.integer("jobFlag", 1, kAllProfiles));
  job.rotation = int32(json.integer("rotation", 0, 270, 0));
  job.vid = int32(json.integer("vid", 0, kMaxTrack, 0));
  job.aid = int32(json.integer("aid", 0, kMaxTrack, 0));
  job.sid = int32(json.integer("sid", -1, kMaxTrack, -1));
  job.subtitle = askedSubtitle(json);
  job.subSize = int32(json.integer("subSize", 0, 1000, 0));
  job.subSeek = int32(json.integer("subSeek", INT32_MIN, INT32_MAX, 0));
  job.subColor = askedColour(json);
  job.priority = int32(json.integer("priority", -kMaxPriority, kMaxPriority, 0));
  job.insertType = int32(json.integer("insertType", INSERT_WATCHER, INSERT_USER, INSERT_USER));
  job.mediaType = int32(json.integer("mediaType", 0, 3, 0));
  json.finish();
  if (job.rotation % 90 != 0) throw RequestError("\"rotation\" is not 0, 90, 180 or 270");
  checkSource(job.src);
  return job;
}

// A text that no file can have, out of a damaged older queue, must not hide the rows behind it.
KxDBTaskParam shortened(KxDBTaskParam job) {
  constexpr size_t kLongest = 1000;
  for (std::string* text : {&job.src, &job.dst, &job.subtitle, &job.subColor})
    if (text->size() > kLongest) text->resize(kLongest);
  return job;
}

// What the list shows about a source. Done before the queue is locked; queueing asks again,
// and the probe remembers its last file.
void describeSource(KxDBTaskParam& job) {
  char extension[16];
  const int kind = MyIDB_GetFilenameType(job.src.c_str(), extension, 2, sizeof extension);
  if (job.mediaType == 0) job.mediaType = kind == 0 ? 2 : kind;
  if (kind == 1) return;
  KxMediaInfo info;
  if (info.init(job.src) != 0) return;
  job.duration = info.m_duration;
  for (int n = 0; n < info.getVideoTrackCount(); ++n) {
    const KxStream track = info.getVideoTrack(n);
    if (track.m_isEmpty ||
        int64_t{track.m_width} * track.m_height <= int64_t{job.width} * job.height)
      continue;
    job.width = track.m_width;
    job.height = track.m_height;
  }
}

// The waiting row that a job just queued has become, which may be an older one that took its
// profiles in.
std::optional<KxDBTaskParam> rowOfQueued(const KxDBTaskParam& job) {
  std::optional<KxDBTaskParam> found;
  for (const KxDBTask& task : store()->getDBJobBySource(job.src)) {
    KxDBTaskParam row = task.param;
    if (row.status != JOB_WAITING || (row.jobFlag & job.jobFlag) != job.jobFlag ||
        row.priority != job.priority || row.rotation != job.rotation ||
        row.mediaType != job.mediaType)
      continue;
    KxDBTaskParam wanted = job;
    wanted.id = row.id;
    wanted.dst = row.dst;  // merging keeps the older row's destination
    wanted.jobFlag = row.jobFlag;
    wanted.vid = row.vid;  // queueing chooses the track
    if (row == wanted) found = row;
  }
  return found;
}

KxDBTaskParam rowOf(int64_t id) {
  const std::vector<KxDBTask> rows = store()->getDBJobById(id);
  if (rows.empty()) throw RequestError(noJob(id));
  return rows.front().param;
}

nlohmann::json outputsOf(const KxDBTaskParam& job) {
  nlohmann::json outputs = nlohmann::json::array();
  for (const KxJobOutput& output : kxJobOutputs(job)) {
    outputs.push_back({{"profile", output.profile},
                       {"path", output.path},
                       {"link", output.link},
                       {"exists", access(output.path.c_str(), F_OK) == 0}});
  }
  return outputs;
}

// One number out of the job store; 0 when it cannot be read, which is logged.
long long storeNumber(const std::string& what) {
  long long number = 0;
  store()->selectOneInt("SELECT " + what + ";", number);
  return number;
}

bool hasEnded(int status) {
  return status != JOB_WAITING && status != JOB_RUNNING;
}

std::string cancelRow(int64_t id) {
  const std::vector<KxDBTask> rows = store()->getDBJobById(id);
  if (rows.empty()) return noJob(id);
  KxDBTaskParam job = rows.front().param;
  if (hasEnded(job.status)) return "job " + std::to_string(id) + " has already ended";
  job.status = JOB_CANCELLED;
  return store()->updateDBJobStatus(job) == 0 ? "" : "the job store refused the change";
}

// Runs statements that hold nothing but numbers as one transaction.
bool execAll(const std::vector<std::string>& statements) {
  if (store()->exec("BEGIN IMMEDIATE") != 0) return false;
  for (const std::string& statement : statements) {
    if (store()->exec(statement) == 0) continue;
    store()->exec("ROLLBACK");
    return false;
  }
  return store()->exec("COMMIT") == 0;
}

bool moveRow(const KxDBTaskParam& job, int64_t rank) {
  const std::string from = std::to_string(job.rank);
  const std::string to = std::to_string(rank);
  const std::string between = rank < job.rank
                                  ? "Rank = Rank + 1 WHERE Rank >= " + to + " AND Rank < " + from
                                  : "Rank = Rank - 1 WHERE Rank > " + from + " AND Rank <= " + to;
  return execAll({"UPDATE JobTable SET " + between,
                  "UPDATE JobTable SET Rank = " + to + " WHERE Id = " + std::to_string(job.id)});
}

KxRes2_e typeOfResource(const std::string& id) {
  for (const KxResource2& resource : KxResMgr2::getInstance()->getResVec())
    if (resource.id == id) return resource.resType;
  throw RequestError("there is no such resource");
}

}  // namespace

Answer JobCommands::whenStopped(StopOperation operation) {
  std::future<std::string> result = m_loop.submit(std::move(operation));
  if (result.wait_for(kStopPatience) == std::future_status::ready) return answerOf(result.get());
  // The loop goes on with it; only the client need not wait any longer.
  return Answer::object({{"pending", true}});
}

Answer JobCommands::add(int, const KxSockData_s& request) {
  KxDBTaskParam job = askedJob(request);
  describeSource(job);
  StoreLock lock;
  if (store()->addDBJob(job) != 0) throw RequestError("the job store refused the job");
  const std::optional<KxDBTaskParam> row = rowOfQueued(job);
  if (!row) throw RequestError("the job was queued but cannot be found");
  Answer answer = Answer::object({{"id", row->id}, {"rank", row->rank}, {"jobFlag", row->jobFlag}});
  answer.value2 = int32(row->id);
  return answer;
}

Answer JobCommands::query(int, const KxSockData_s& request) {
  RequestJson json(request);
  const KxDBGetJobParam wanted = askedRows(json, requestNumber(request, 1));
  Answer answer;
  std::vector<KxDBTask> rows;
  {
    StoreLock lock;
    answer.value2 = int32(store()->getJobCount(wanted));
    rows = store()->getDBJob(wanted);
  }
  JsonPage page;
  for (const KxDBTask& row : rows) {
    if (page.add(jobToJson(row.param))) continue;
    if (page.rows() > 0) break;
    page.add(jobToJson(shortened(row.param)));
  }
  answer.value3 = page.rows();
  answer.text = page.text();
  return answer;
}

Answer JobCommands::count(int, const KxSockData_s& request) {
  RequestJson json(request);
  const KxDBGetJobParam wanted = askedRows(json, 0);
  Answer answer;
  StoreLock lock;
  answer.value2 = int32(store()->getJobCount(wanted));
  return answer;
}

Answer JobCommands::show(int, const KxSockData_s& request) {
  RequestJson json(request);
  const int64_t id = askedId(json);
  json.finish();
  KxDBTaskParam job;
  std::string reason;
  {
    StoreLock lock;
    job = rowOf(id);
    reason = store()->getDBJobReason(id);
  }
  nlohmann::json object = jobToJson(job);
  object["reason"] = reason;
  if (job.status == JOB_WAITING) object["waitsFor"] = m_loop.obstacleOf(job);
  object["outputs"] = outputsOf(job);
  return Answer::object(object);
}

Answer JobCommands::removeByName(const std::string& path, bool isFolder) {
  const std::string prefix = isFolder ? convertFolderPath(path) : path;
  StopOperation operation;
  operation.matches = [prefix, isFolder](const KxDBTaskParam& job) {
    return isFolder ? job.src.compare(0, prefix.size(), prefix) == 0 : job.src == prefix;
  };
  operation.act = [prefix, isFolder]() -> std::string {
    KxDBTaskParam every;
    every.src = prefix;
    every.status = -1;
    every.insertType = -1;
    const int result =
        isFolder ? store()->deleteDBJobByDirname(every) : store()->deleteDBJobByFilename(every);
    return result == 0 ? ""
                       : "there is no job of that " + std::string(isFolder ? "folder" : "file");
  };
  return whenStopped(std::move(operation));
}

Answer JobCommands::remove(int, const KxSockData_s& request) {
  RequestJson json(request);
  const int given = json.has("id") + json.has("file") + json.has("folder");
  if (given != 1) throw RequestError("give one of \"id\", \"file\" and \"folder\"");
  if (!json.has("id")) {
    const bool isFolder = json.has("folder");
    const std::string path = json.path(isFolder ? "folder" : "file");
    json.finish();
    return removeByName(path, isFolder);
  }
  KxDBTaskParam job;
  job.id = askedId(json);
  json.finish();
  const auto deleteRow = [job]() -> std::string {
    return store()->deleteDBJobById(job) == 0 ? "" : noJob(job.id);
  };
  return whenStopped(
      {[id = job.id](const KxDBTaskParam& other) { return other.id == id; }, deleteRow});
}

Answer JobCommands::cancel(int, const KxSockData_s& request) {
  RequestJson json(request);
  const int64_t id = askedId(json);
  json.finish();
  return whenStopped(
      {[id](const KxDBTaskParam& job) { return job.id == id; }, [id] { return cancelRow(id); }});
}

Answer JobCommands::retry(int, const KxSockData_s& request) {
  RequestJson json(request);
  const int64_t id = askedId(json);
  json.finish();
  StoreLock lock;
  KxDBTaskParam job = rowOf(id);
  if (!hasEnded(job.status)) throw RequestError("job " + std::to_string(id) + " has not ended");
  job.status = JOB_WAITING;
  job.dateStart = 0;
  job.dateFinish = 0;
  store()->updateDBJobReason(id, "");
  const bool isBack = store()->updateDBJobDateStart(job) == 0 &&
                      store()->updateDBJobDateFinish(job) == 0 &&
                      store()->updateDBJobStatus(job) == 0;
  return answerOf(isBack ? "" : "the job store refused the change");
}

Answer JobCommands::swapPlaces(int, const KxSockData_s& request) {
  RequestJson json(request);
  const int64_t id = askedId(json);
  const int64_t with = askedId(json, "with");
  json.finish();
  if (id == with) throw RequestError("a job cannot change places with itself");
  StoreLock lock;
  rowOf(id);
  rowOf(with);
  return answerOf(store()->swapDBJobOrder(id, with) == 0 ? "" : "the job store refused the change");
}

Answer JobCommands::move(int, const KxSockData_s& request) {
  RequestJson json(request);
  const int64_t id = askedId(json);
  int64_t rank = json.integer("rank", 1, INT64_MAX);
  json.finish();
  StoreLock lock;
  const KxDBTaskParam job = rowOf(id);
  long long last = 0;
  if (store()->selectOneInt("SELECT IFNULL(MAX(Rank), 0) AS res FROM JobTable;", last) != 0)
    throw RequestError("the job store refused the change");
  rank = std::min<int64_t>(rank, last);
  if (rank != job.rank && !moveRow(job, rank))
    throw RequestError("the job store refused the change");
  return Answer::object({{"rank", rank}});
}

Answer JobCommands::clean(int, const KxSockData_s& request) {
  RequestJson json(request);
  const std::string which = json.text("which", 32, "");
  json.finish();
  if (which == "processed") {
    StoreLock lock;
    return answerOf(store()->cleanProcessedDBJob() == 0 ? "" : "the job store refused the change");
  }
  if (which != "unprocessed")
    throw RequestError("\"which\" is neither \"processed\" nor \"unprocessed\"");
  return whenStopped({[](const KxDBTaskParam&) { return true; },
                      []() -> std::string {
                        return store()->cleanUnprocessedDBJob() == 0
                                   ? ""
                                   : "the job store refused the change";
                      }});
}

Answer JobCommands::removeFolder(int, const KxSockData_s& request) {
  KxTransFileMonitor* monitor = KxTransFileMonitor::getInstance();
  const std::string path = requestPath(request, 1);
  if (!monitor->hasFolder(path)) throw RequestError("the folder is not watched");
  std::string prefix = convertFolderPath(path);
  prefix.erase(std::unique(prefix.begin(), prefix.end(), miscStripSlashes), prefix.end());
  StopOperation operation;
  operation.matches = [prefix](const KxDBTaskParam& job) {
    return job.src.compare(0, prefix.size(), prefix) == 0;
  };
  operation.act = [monitor, path]() -> std::string {
    return monitor->delFolder(path) == 0 ? "" : "the folder could not be taken out";
  };
  operation.takesLocks = true;
  return whenStopped(std::move(operation));
}

Answer JobCommands::watchStatus(int, const KxSockData_s& request) {
  return xcoded::watchStatus(request);
}

Answer JobCommands::importLegacy(int, const KxSockData_s& request) {
  const std::string path = requestPath(request, 1);
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    throw RequestError("the older database is not a readable file");
  size_t skipped = 0;
  StoreLock lock;
  const std::string last = std::to_string(storeNumber("IFNULL(MAX(Id), 0) AS res FROM JobTable"));
  if (store()->import_43x_DB(path, skipped) != 0)
    throw RequestError("the older database cannot be read");
  const std::string imported = "COUNT(*) AS res FROM JobTable AS new WHERE new.Id > " + last;
  const long long known =
      storeNumber(imported +
                  " AND EXISTS (SELECT 1 FROM JobTable AS old WHERE old.SrcPath = new.SrcPath "
                  "AND old.Id <= " +
                  last + ")");
  Answer answer = Answer::object({{"known", known}, {"skipped", skipped}});
  answer.value2 = int32(storeNumber(imported));
  return answer;
}

Answer JobCommands::registerProcess(int fd, const KxSockData_s& request) {
  RequestJson json(request);
  const std::optional<Peer> peer = peerOf(fd);
  const std::string resId = json.text("resId", 256, "");
  const int pid = int32(json.integer("pid", 1, INT32_MAX, peer ? peer->pid : 0));
  const bool isRegistration = json.flag("register", true);
  const auto jobType = static_cast<KxRegJobType_e>(json.integer("jobType", 1, INT32_MAX, 1));
  KxRegInfo info;
  info.m_srcPath = json.text("src", PATH_MAX - 1, "");
  info.m_srcWidth = int32(json.integer("width", 0, INT32_MAX, 0));
  info.m_srcHeight = int32(json.integer("height", 0, INT32_MAX, 0));
  info.m_configMask = json.integer("jobFlag", 0, INT64_MAX, 0);
  info.m_ip = json.text("ip", 64, "");
  info.m_username = json.text("user", 256, "");
  info.m_tag = json.text("tag", 256, "");
  info.m_pid = pid;
  info.m_startTime = time(nullptr);
  json.finish();
  if (isRegistration && access(("/proc/" + std::to_string(pid)).c_str(), F_OK) != 0)
    throw RequestError("there is no process " + std::to_string(pid));
  KxRegister registration;
  if (registration.init(typeOfResource(resId), resId, jobType, pid, info) != 0)
    throw RequestError("the registration is not valid");
  KxResMgr2* manager = KxResMgr2::getInstance();
  ManagerLock lock;
  const int result =
      isRegistration ? manager->regRes(registration) : manager->unRegRes(registration);
  return answerOf(result == 0 ? "" : "there is no such resource");
}

void JobCommands::dump() {
  constexpr int kPage = 1000;
  const std::bitset<8> notEnded(1UL << JOB_WAITING | 1UL << JOB_RUNNING);
  for (int offset = 0;; offset += kPage) {
    std::vector<KxDBTask> rows;
    {
      StoreLock lock;
      rows = store()->getDBJob(KxDBGetJobParam(notEnded, kPage, "Rank", offset, true, -1, 0));
    }
    for (KxDBTask& row : rows) row.dump();
    if (rows.size() < kPage) return;
  }
}

}  // namespace xcoded
