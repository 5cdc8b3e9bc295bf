#include "resources/Checkpoint.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "KxHostPlatform.h"
#include "KxTransDBMgr.h"
#include "KxTranscodeUnit2.h"
#include "engines/WorkFolder.h"
#include "resources/RunnerLog.h"

extern "C" {
#include <libavutil/crc.h>
}

namespace runner {
namespace {

constexpr const char* kPrefix = "checkpoint_";
constexpr const char* kNew = "new_";
constexpr const char* kSum = "sum_";
constexpr const char* kOwner = "owner";
constexpr const char* kParameters = "parameters";
constexpr off_t kSyncStep = off_t{32} << 20;
constexpr size_t kReadStep = size_t{1} << 20;

struct CloseDir {
  void operator()(DIR* folder) const { closedir(folder); }
};

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, CloseDir> stream(opendir(folder.c_str()));
  if (!stream) return names;
  while (const dirent* entry = readdir(stream.get())) names.emplace_back(entry->d_name);
  std::erase_if(names, [](const std::string& name) { return name == "." || name == ".."; });
  return names;
}

std::string textOf(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The name of what goes with a file, beside it.
std::string beside(const std::string& name, const char* prefix) {
  const size_t base = name.rfind('/') + 1;
  return name.substr(0, base) + prefix + name.substr(base);
}

// Length and sum of a file's bytes. Nothing when it cannot be read or goOn() turned false.
std::optional<std::string> sumOf(const std::string& path, const std::function<bool()>& goOn) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  const AVCRC* table = av_crc_get_table(AV_CRC_32_IEEE_LE);
  std::vector<uint8_t> bytes(kReadStep);
  uint32_t sum = UINT32_MAX;
  int64_t length = 0;
  while (goOn()) {
    const ssize_t count = read(file.get(), bytes.data(), bytes.size());
    if (count < 0) return std::nullopt;
    if (count == 0) return std::to_string(length) + " " + std::to_string(sum);
    sum = av_crc(table, sum, bytes.data(), static_cast<size_t>(count));
    length += count;
  }
  return std::nullopt;
}

// The same for the same path on every machine and in every build.
uint64_t hashOf(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325;
  for (const char byte : text) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  return hash;
}

std::string folderName(const KxDBTaskParam& job) {
  char name[64];
  snprintf(name, sizeof name, "%s%lld_%016llx", kPrefix, static_cast<long long>(job.id),
           static_cast<unsigned long long>(hashOf(job.src)));
  return name;
}

struct CheckpointName {
  long long job = -1;
  unsigned long long hash = 0;
};

std::optional<CheckpointName> parseName(const std::string& name) {
  CheckpointName parsed;
  int length = 0;
  if (sscanf(name.c_str(), "checkpoint_%18lld_%16llx%n", &parsed.job, &parsed.hash, &length) != 2 ||
      static_cast<size_t>(length) != name.size())
    return std::nullopt;
  return parsed;
}

// The data of a large file takes long; it is written in steps, so that a stop need not wait.
bool syncToDisk(const std::string& path, const std::function<bool()>& goOn) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0) return false;
  constexpr unsigned kWriteAndWait =
      SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  for (off_t done = 0; done < info.st_size; done += kSyncStep) {
    if (!goOn()) return false;
    // Not every file system can; the last word is with fsync.
    static_cast<void>(sync_file_range(file.get(), done, kSyncStep, kWriteAndWait));
  }
  return goOn() && fsync(file.get()) == 0;
}

void syncFolder(const std::string& folder) {
  const UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) static_cast<void>(fsync(fd.get()));
}

bool makeFolder(const std::string& path) {
  return mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
}

void removeAll(const std::string& path) {
  if (myremove(path.c_str()) != 0) KX_RUNNER_LOG_LEVEL(3, "remove %s fail\n", path.c_str());
}

template <typename Visit>
void forEachCheckpoint(Visit visit) {
  const std::string parent = engines::findTranscodeFolder();
  if (parent.empty()) return;
  for (const std::string& name : namesIn(parent)) {
    const auto parsed = parseName(name);
    if (parsed) visit(parent + name, *parsed);
  }
}

// True when the job that a checkpoint was made for may still run.
bool isWantedLocked(const CheckpointName& checkpoint) {
  const auto rows = KxTransDBMgr::getInstance()->getDBJobById(checkpoint.job);
  if (rows.empty() || hashOf(rows.front().param.src) != checkpoint.hash) return false;
  const int status = rows.front().param.status;
  return status == JOB_WAITING || status == JOB_RUNNING;
}

bool isWanted(const CheckpointName& checkpoint) {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  // When in doubt it stays.
  if (store->mutexLock() != 0) return true;
  const bool wanted = isWantedLocked(checkpoint);
  store->mutexUnLock();
  return wanted;
}

}  // namespace

std::optional<Checkpoint> Checkpoint::open(const KxDBTaskParam& job, const SourceStamp& source,
                                           const std::string& parameters) {
  const std::string parent = engines::findTranscodeFolder();
  if (parent.empty()) return std::nullopt;
  Checkpoint checkpoint(parent + folderName(job) + "/");
  std::ostringstream owner;
  owner << job.src << '\n'
        << source.size << ' ' << source.modified << ' ' << source.modifiedNs << '\n'
        << parameters << '\n';
  if (!checkpoint.prepare(owner.str())) return std::nullopt;
  return checkpoint;
}

bool Checkpoint::prepare(const std::string& owner) const {
  if (text(kOwner) != owner) {
    removeAll(m_folder.substr(0, m_folder.size() - 1));
    if (mymkdir(m_folder.c_str(), 0700) != 0 || !keepText(owner, kOwner)) return false;
    syncFolder(m_folder + "..");
  }
  removeNew("");
  return true;
}

void Checkpoint::removeNew(const std::string& below) const {
  for (const std::string& name : namesIn(path(below)))
    if (name.starts_with(kNew)) remove(below + name);
}

std::string Checkpoint::newName(const std::string& name) const {
  return path(beside(name, kNew));
}

std::string Checkpoint::text(const std::string& name) const {
  return textOf(path(name));
}

int64_t Checkpoint::size() const {
  int64_t bytes = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder, error)) {
    if (entry.is_regular_file(error)) bytes += static_cast<int64_t>(entry.file_size(error));
  }
  return bytes;
}

bool Checkpoint::openPart(const std::string& name, const std::string& parameters) const {
  if (text(name + kParameters) == parameters) {
    removeNew(name);
    return true;
  }
  remove(name.substr(0, name.size() - 1));
  if (!makeFolder(path(name)) || !keepText(parameters, name + kParameters)) return false;
  syncFolder(m_folder);
  return true;
}

bool Checkpoint::isWhole(const std::string& name, const std::function<bool()>& goOn) const {
  const auto sum = sumOf(path(name), goOn);
  return sum && *sum == text(beside(name, kSum));
}

// The sum comes first: a file without one would pass for a damaged one.
bool Checkpoint::keep(const std::string& from, const std::string& name,
                      const std::function<bool()>& goOn) const {
  const auto sum = sumOf(from, goOn);
  return sum && keepText(*sum, beside(name, kSum)) && place(from, name, goOn);
}

bool Checkpoint::place(const std::string& from, const std::string& name,
                       const std::function<bool()>& goOn) const {
  const std::string to = path(name);
  if (!syncToDisk(from, goOn) || rename(from.c_str(), to.c_str()) != 0) return false;
  syncFolder(to.substr(0, to.rfind('/')));
  return true;
}

bool Checkpoint::keepText(const std::string& text, const std::string& name) const {
  const std::string fresh = newName(name);
  {
    std::ofstream file(fresh, std::ios::trunc);
    file << text;
    if (!file.flush()) return false;
  }
  return place(fresh, name, [] { return true; });
}

void Checkpoint::remove(const std::string& name) const {
  removeAll(path(name));
  removeAll(path(beside(name, kSum)));
}

void removeCheckpoints(int64_t job) {
  forEachCheckpoint([job](const std::string& path, const CheckpointName& name) {
    if (name.job == job) removeAll(path);
  });
}

}  // namespace runner

void kxRemoveStrayCheckpoints() {
  runner::forEachCheckpoint([](const std::string& path, const runner::CheckpointName& name) {
    if (!runner::isWanted(name)) runner::removeAll(path);
  });
}
