// Queue queries and row callbacks with arbitrary content: nothing may crash, and nothing may
// change the queue.

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "KxTransDBMgr.h"
#include "host/HostLog.h"

namespace {

constexpr long long kRows = 20;

// Takes values off the front of the input; zeroes once it is used up.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  template <class Number>
  Number number() {
    Number value = 0;
    const size_t count = std::min(m_size, sizeof value);
    if (count > 0) memcpy(&value, m_data, count);
    skip(count);
    return value;
  }
  // Up to 255 bytes without NUL.
  std::string text() {
    const size_t count = std::min<size_t>(m_size, number<uint8_t>());
    std::string value(reinterpret_cast<const char*>(m_data), std::min(count, m_size));
    skip(value.size());
    return value.substr(0, value.find('\0'));
  }
  bool empty() const { return m_size == 0; }

 private:
  void skip(size_t count) {
    m_data += count;
    m_size -= count;
  }

  const uint8_t* m_data;
  size_t m_size;
};

KxTransDBMgr* openStore() {
  kxhost::setLogSink([](const kxhost::LogRecord&) {});
  const std::string path =
      (std::filesystem::temp_directory_path() / ("job_query_fuzz." + std::to_string(getpid())))
          .string();
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  if (store->init(path) != 0) abort();
  for (const char* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
  if (store->exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20) "
                  "INSERT INTO JobTable (SrcPath, DstPath, Status, InsertType, MediaType, Rank) "
                  "SELECT 's' || i, '', i % 6, i % 2, i % 4, i FROM n") != 0)
    abort();
  return store;
}

const std::vector<std::string> kNames = {
    "Id",      "SrcPath", "JobFlag", "Rank",     "VideoTrack",     "FileName",  "Jobflag",
    "AlbumId", "res",     "Version", "Filesize", "RotationDegree", "SubtitleId"};

void callBack(Input& input) {
  std::vector<std::string> names;
  std::vector<std::string> values;
  while (!input.empty() && names.size() < 40) {
    const auto pick = input.number<uint8_t>();
    names.push_back(pick < kNames.size() ? kNames[pick] : input.text());
    values.push_back(input.text());
  }
  std::vector<char*> namePointers;
  std::vector<char*> valuePointers;
  for (size_t i = 0; i < names.size(); ++i) {
    namePointers.push_back(names[i].data());
    valuePointers.push_back(values[i].empty() ? nullptr : values[i].data());
  }
  const int count = static_cast<int>(names.size());
  std::vector<KxDBTask> jobs;
  std::vector<Kx43xDBTaskParam> oldJobs;
  long long number = 0;
  std::string text;
  KxTransDBMgr::getDBTaskCallBK_(&jobs, count, valuePointers.data(), namePointers.data());
  KxTransDBMgr::get43xDBTaskCallBK_(&oldJobs, count, valuePointers.data(), namePointers.data());
  KxTransDBMgr::queryOneIntCallBK_(&number, count, valuePointers.data(), namePointers.data());
  KxTransDBMgr::queryOneStringCallBK_(&text, count, valuePointers.data(), namePointers.data());
  if (jobs.size() != 1 || oldJobs.size() != 1) abort();
  jobs[0].param.genDefaultOutput(number);
  jobs[0].dump();
  oldJobs[0].dump();
}

void query(KxTransDBMgr* store, Input& input) {
  const auto flags = input.number<uint8_t>();
  const auto limit = input.number<int32_t>();
  const auto offset = input.number<int32_t>();
  const bool ascending = input.number<uint8_t>() % 2 != 0;
  const auto insertType = input.number<int32_t>();
  const auto mediaType = input.number<int32_t>();
  const auto pick = input.number<uint8_t>();
  const std::string orderBy = pick < kNames.size() ? kNames[pick] : input.text();
  const KxDBGetJobParam param(flags, limit, orderBy, offset, ascending, insertType, mediaType);
  const auto page = store->getDBJob(param);
  const long long matching = store->getJobCount(param);
  if (page.size() > static_cast<size_t>(kRows) || matching > kRows) abort();
  if (static_cast<long long>(page.size()) > matching) abort();
  long long rows = 0;
  if (store->selectOneInt("SELECT COUNT(*) AS res FROM JobTable", rows) != 0 || rows != kRows)
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static KxTransDBMgr* const store = openStore();
  Input input(data, size);
  if (input.number<uint8_t>() % 2 == 0) {
    query(store, input);
  } else {
    callBack(input);
  }
  return 0;
}
