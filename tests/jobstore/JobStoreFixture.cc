#include "tests/jobstore/JobStoreFixture.h"

#include <filesystem>
#include <sstream>
#include <stdexcept>

using kxtest::readFile;
using kxtest::writeFile;

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
