#include "tests/jobstore/JobStoreFixture.h"

#include <filesystem>
#include <sstream>
#include <stdexcept>

using kxtest::readFile;
using kxtest::writeFile;

namespace {

sqlite3* openOrThrow(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
    sqlite3_close(db);
    throw std::runtime_error("cannot open " + path);
  }
  return db;
}

int collectRow(void* out, int n, char** values, char** /*names*/) {
  std::string row;
  for (int i = 0; i < n; ++i)
    row += std::string(i > 0 ? "|" : "") + (values[i] != nullptr ? values[i] : "NULL");
  static_cast<std::vector<std::string>*>(out)->push_back(row);
  return 0;
}

}  // namespace

OtherConnection::OtherConnection(const std::string& path)
    : m_db(openOrThrow(path), sqlite3_close) {}

void OtherConnection::run(const std::string& sql) const {
  if (sqlite3_exec(m_db.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    throw std::runtime_error(sql + ": " + sqlite3_errmsg(m_db.get()));
}

std::vector<std::string> OtherConnection::rows(const std::string& sql) const {
  std::vector<std::string> result;
  if (sqlite3_exec(m_db.get(), sql.c_str(), collectRow, &result, nullptr) != SQLITE_OK)
    throw std::runtime_error(sql + ": " + sqlite3_errmsg(m_db.get()));
  return result;
}

std::string OtherConnection::value(const std::string& sql) const {
  const auto all = rows(sql);
  return all.size() == 1 ? all[0] : std::to_string(all.size()) + " rows";
}

JobStoreTest::JobStoreTest() {
  EXPECT_EQ(store->init(dbPath()), 0);
}

JobStoreTest::~JobStoreTest() {
  store->uninit();
}

std::string JobStoreTest::source(const std::string& name, size_t bytes) const {
  std::string path = folder / name;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  writeFile(path, std::string(bytes, 'x'));
  return path;
}

KxDBTaskParam JobStoreTest::request(const std::string& src, uint64_t profiles) const {
  KxDBTaskParam param;
  param.src = src;
  param.jobFlag = profiles;
  return param;
}

KxDBTaskParam JobStoreTest::queue(const KxDBTaskParam& param) {
  EXPECT_EQ(store->addDBJob(param), 0) << param.src;
  return jobOf(param.src);
}

KxDBTaskParam JobStoreTest::queueSource(const std::string& name, uint64_t profiles) {
  return queue(request(source(name), profiles));
}

std::vector<KxDBTaskParam> JobStoreTest::jobs() {
  std::vector<KxDBTaskParam> result;
  for (const KxDBTask& task : store->getDBJob({1U << 4, -1, "Rank", 0, true, -1, 0}))
    result.push_back(task.param);
  return result;
}

KxDBTaskParam JobStoreTest::jobOf(const std::string& src) {
  KxDBTaskParam last;
  for (const KxDBTaskParam& job : jobs())
    if (job.src == src) last = job;
  return last;
}

std::vector<int64_t> JobStoreTest::ranks() {
  std::vector<int64_t> result;
  for (const KxDBTaskParam& job : jobs()) result.push_back(job.rank);
  return result;
}

std::vector<std::string> JobStoreTest::places() {
  std::vector<std::string> result;
  for (const KxDBTaskParam& job : jobs()) {
    result.push_back(std::filesystem::path(job.src).stem().string() + ":" +
                     std::to_string(job.rank));
  }
  return result;
}

void JobStoreTest::setStatus(int64_t id, int32_t status) {
  KxDBTaskParam param;
  param.id = id;
  param.status = status;
  EXPECT_EQ(store->updateDBJobStatus(param), 0);
}

void JobStoreTest::installMediaLibrary() const {
  root.script("/usr/local/medialibrary/bin/catalogcmd",
              "[ \"$1\" = TranscodeStatus ] && [ $# = 3 ] && echo \"$2 $3\" >>'" +
                  root.file("/marks") + "'\n");
}

std::vector<std::string> JobStoreTest::marks() const {
  std::istringstream lines(readFile(root.file("/marks")));
  std::vector<std::string> result;
  for (std::string line; std::getline(lines, line);) result.push_back(line);
  return result;
}

void JobStoreTest::forgetMarks() const {
  std::filesystem::remove(root.file("/marks"));
}
