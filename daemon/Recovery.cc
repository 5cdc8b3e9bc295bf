#include "daemon/Recovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include "KxHostPlatform.h"
#include "KxTranscodeUnit2.h"
#include "Misc.h"
#include "daemon/LibraryLocks.h"
#include "frame/Log.h"
#include "frame/UniqueFd.h"
#include "host/IsoMount.h"

namespace xcoded {
namespace {

constexpr const char* kLogSource = "xcoded";
constexpr long long kClockSlack = 2;  // seconds that start times and name times may disagree

struct CloseDir {
  void operator()(DIR* folder) const { closedir(folder); }
};

// Seconds since the epoch at which the machine started.
std::optional<long long> bootTime() {
  std::ifstream stat("/proc/stat");
  std::string line;
  while (std::getline(stat, line))
    if (line.rfind("btime ", 0) == 0) return atoll(line.c_str() + 6);
  return std::nullopt;
}

// Seconds since the epoch at which a process started; nothing when no such process runs.
std::optional<long long> startTime(long long pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return std::nullopt;
  // The program's name may hold blanks and parentheses, so fields are counted behind it.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string field;
  for (int number = 3; number <= 22; ++number) {
    if (!(fields >> field)) return std::nullopt;
    // A zombie waits to be reaped by its parent, which may take its time.
    if (number == 3 && (field == "Z" || field == "X")) return std::nullopt;
  }
  const std::optional<long long> boot = bootTime();
  if (!boot) return std::nullopt;
  return *boot + atoll(field.c_str()) / sysconf(_SC_CLK_TCK);
}

// Fails with a failed parent, unless the name is absolute.
UniqueFd openFolder(int parent, const std::string& name, int extraFlags) {
  return UniqueFd(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | extraFlags));
}

// Names that begin with a prefix and go on as those of a dead process do.
std::vector<std::string> leftoversIn(int folder, const std::string& prefix = "") {
  std::vector<std::string> names;
  // The stream closes its descriptor.
  UniqueFd copy(fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!copy) return names;
  const std::unique_ptr<DIR, CloseDir> stream(fdopendir(copy.get()));
  if (!stream) return names;
  copy.release();
  while (const dirent* entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name.starts_with(prefix) && isLeftover(name.substr(prefix.size()))) names.push_back(name);
  }
  return names;
}

// The folder belongs to a user, who may have put a link in place of any part of it.
void cleanTempBeside(const std::string& sourceFolder) {
  const UniqueFd source = openFolder(AT_FDCWD, sourceFolder, 0);
  const UniqueFd thumb = openFolder(source.get(), ".@__thumb", O_NOFOLLOW);
  const UniqueFd temp = openFolder(thumb.get(), "temp", O_NOFOLLOW);
  if (!source || !thumb || !temp) return;
  for (const std::string& name : leftoversIn(temp.get())) {
    KX_LOG_LEVEL(4, "remove leftover %s of %s\n", name.c_str(), sourceFolder.c_str());
    if (unlinkat(temp.get(), name.c_str(), 0) != 0)
      KX_LOG_ERRNO("remove leftover %s fail", name.c_str());
  }
}

// The pages of a document are rendered with a scratch folder beside their own folder.
void cleanScratchOf(const KxDBTaskParam& job) {
  static const std::string kAlbum = ".album/";
  for (const KxJobOutput& output : kxJobOutputs(job)) {
    if (!output.path.ends_with(kAlbum)) continue;
    const std::string base = output.path.substr(0, output.path.size() - kAlbum.size());
    const std::string parent = base.substr(0, base.rfind('/') + 1);
    const UniqueFd folder = openFolder(AT_FDCWD, parent, 0);
    if (!folder) continue;
    for (const std::string& name :
         leftoversIn(folder.get(), base.substr(parent.size()) + ".gstmp.")) {
      KX_LOG_LEVEL(4, "remove leftover %s%s\n", parent.c_str(), name.c_str());
      if (myremove((parent + name).c_str()) != 0)
        KX_LOG_LEVEL(3, "remove leftover %s%s fail\n", parent.c_str(), name.c_str());
    }
  }
}

void cleanWorkFolders() {
  std::string disk;
  if (miscGetHDDPath(disk) != 0) return;
  const std::string parent = convertFolderPath(disk) + ".system/transcode/";
  const UniqueFd folder = openFolder(AT_FDCWD, parent, O_NOFOLLOW);
  if (!folder) return;
  for (const std::string& name : leftoversIn(folder.get())) {
    KX_LOG_LEVEL(4, "remove leftover %s%s\n", parent.c_str(), name.c_str());
    if (myremove((parent + name).c_str()) != 0)
      KX_LOG_LEVEL(3, "remove leftover %s%s fail\n", parent.c_str(), name.c_str());
  }
}

std::vector<KxDBTask> runningRows() {
  const KxDBGetJobParam running(1UL << JOB_RUNNING, 1000, "Id", 0, true, -1, 0);
  StoreLock lock;
  return KxTransDBMgr::getInstance()->getDBJob(running);
}

void putBack(const std::vector<KxDBTask>& rows) {
  KxTransDBMgr* store = KxTransDBMgr::getInstance();
  StoreLock lock;
  for (const KxDBTask& row : rows) {
    KX_LOG_LEVEL(4, "job %lld was running when the service ended, it waits again\n",
                 static_cast<long long>(row.param.id));
    KxDBTaskParam job = row.param;
    job.status = JOB_WAITING;
    job.dateStart = 0;
    job.dateFinish = 0;
    store->updateDBJobDateStart(job);
    store->updateDBJobDateFinish(job);
    store->updateDBJobStatus(job);
  }
}

}  // namespace

bool isLeftover(const std::string& name) {
  long long pid = 0;
  long long made = 0;
  char random[7] = {};
  if (name.empty() || name[0] < '0' || name[0] > '9') return false;
  if (sscanf(name.c_str(), "%10lld_%*[0-9-]_%15lld_%6[0-9a-f]", &pid, &made, random) != 3 ||
      strlen(random) != 6)
    return false;
  const std::optional<long long> started = startTime(pid);
  return !started || *started > made + kClockSlack;
}

void recoverFromCrash() {
  const int released = kxhost::releaseStaleIsoMounts();
  if (released > 0) KX_LOG_LEVEL(4, "released %d disc images of an earlier run\n", released);
  cleanWorkFolders();
  // Only jobs that were running have temporary files, and a runner removes its files before
  // it changes its row; so the files go first, and a crash in here loses nothing.
  std::set<std::string> cleaned;
  for (std::vector<KxDBTask> rows = runningRows(); !rows.empty(); rows = runningRows()) {
    for (const KxDBTask& row : rows) {
      const std::string folder = row.param.src.substr(0, row.param.src.rfind('/') + 1);
      if (cleaned.insert(folder).second) cleanTempBeside(folder);
      cleanScratchOf(row.param);
    }
    putBack(rows);
  }
  kxRemoveStrayCheckpoints();
}

}  // namespace xcoded
