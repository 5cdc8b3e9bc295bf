#include "tests/runner/RunnerWorld.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "AmpCgroup.h"
#include "KxResMgr2.h"
#include "KxTransDBMgr.h"

namespace fs = std::filesystem;

namespace kxtest {
namespace {

class Locked {
 public:
  Locked() { KxResMgr2::getInstance()->mutexLock(); }
  ~Locked() { KxResMgr2::getInstance()->mutexUnLock(); }
  KxResMgr2* operator->() const { return KxResMgr2::getInstance(); }
};

class LockedStore {
 public:
  LockedStore() { KxTransDBMgr::getInstance()->mutexLock(); }
  ~LockedStore() { KxTransDBMgr::getInstance()->mutexUnLock(); }
  KxTransDBMgr* operator->() const { return KxTransDBMgr::getInstance(); }
};

// The manager lives as long as the process and must be set up once.
void initManagerOnce(const std::string& cgroups) {
  static const int result = [&] {
    AmpCgroup::setMountRoot(cgroups);
    return KxResMgr2::getInstance()->init("kxrunner");
  }();
  static_cast<void>(result);
}

std::vector<KxDBTask> allRows() {
  const KxDBGetJobParam query(std::bitset<8>(1 << 4), 1000, "Id", 0, true, -1, 0);
  return LockedStore()->getDBJob(query);
}

KxDBTask taskOf(KxDBTaskParam job) {
  KxDBTask task;
  task.init(job);
  return task;
}

std::vector<std::string> filesBelow(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::recursive_directory_iterator(folder, ignored)) {
    if (entry.is_directory() && !entry.is_symlink()) continue;
    names.push_back(fs::relative(entry.path().parent_path(), folder).string() + "/" +
                    entry.path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

std::string field(const std::string& text, const std::string& key) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(key + "=")) return line.substr(key.size() + 1);
  return "";
}

}  // namespace

RunnerWorld::RunnerWorld(Cgroups cgroups) : m_configuration("[TRANSCODESVR]\nCPU_LIMIT=100\n") {
  const std::string data = m_root.path() + "/data/";
  fs::create_directories(data);
  fs::create_directories(m_state / "cgroup/cpu");
  fs::create_directories(m_state / "cgroup/memory");
  if (cgroups == Cgroups::Unified) writeFile(m_state / "cgroup/cgroup.controllers", "cpu memory\n");
  m_root.write("/etc/platform.conf", "Platform=X86_GENERIC\n");
  m_configuration = "[OPTIONS]\nMlsDataDir=" + data + "\n" + m_configuration;
  configure("");
  setEncoder("exec ffmpeg \"$@\"\n");
  setParser("exit 50\n");
  setCards({});
  m_root.script("/usr/local/medialibrary/bin/catalogcmd", "exit 0\n");
  if (KxTransDBMgr::getInstance()->init(m_state / "jobs.db") != 0)
    throw std::runtime_error("cannot open the job store");
  initManagerOnce(m_state / "cgroup");
  KxTranscodeUnit2::setLeaveListener(
      [](void* world) { ++static_cast<RunnerWorld*>(world)->m_runsEnded; }, this);
}

RunnerWorld::~RunnerWorld() {
  Locked()->stopAllUnit();
  waitForUnits();
  KxTranscodeUnit2::setLeaveListener(nullptr, nullptr);
  KxTransDBMgr::getInstance()->uninit();
}

std::vector<std::string> RunnerWorld::mediaFiles() const {
  return filesBelow(m_media.path().string());
}

std::string RunnerWorld::cgroupFile(const std::string& name) const {
  return m_state / ("cgroup/" + name);
}

void RunnerWorld::setEncoder(const std::string& body) {
  // What it can encode is asked of every version of it once.
  m_root.script("/usr/local/medialibrary/bin/ffmpeg",
                "case \"$*\" in *-encoders*) exec ffmpeg \"$@\" ;; esac\n" + body);
}

void RunnerWorld::useFrontEnd() {
  setEncoder("exec '" KX_BUILD_DIR "/tools/ffmpeg' \"$@\"\n");
}

void RunnerWorld::setAgent(const std::string& body) {
  m_root.script("/usr/local/medialibrary/bin/transcode_agent", body);
}

void RunnerWorld::setParser(const std::string& body) {
  m_root.script("/usr/local/medialibrary/bin/xlogparse.sh", body);
}

void RunnerWorld::setCards(const std::vector<std::string>& cards) {
  std::string list;
  std::string ids;
  for (const std::string& card : cards) {
    list += "echo '" + card + "'\n";
    ids += "echo '" + card.substr(0, card.find(':')) + "'\n";
  }
  m_root.script("/sbin/accelctl", "case \"$1\" in\n-l) :\n" + list + ";;\n-q) echo count=" +
                                      std::to_string(cards.size()) + "\n" + ids +
                                      ";;\n-s) echo real_status=2,transcode=1 ;;\nesac\nexit 0\n");
}

void RunnerWorld::configure(const std::string& lines) {
  m_configuration += lines;
  m_root.write("/etc/config/medialibrary.conf", m_configuration);
}

KxDBTaskParam RunnerWorld::addJob(const std::string& source, uint64_t profiles,
                                  const std::function<void(KxDBTaskParam&)>& change) {
  KxDBTaskParam job;
  job.src = source;
  job.jobFlag = profiles;
  job.insertType = INSERT_USER;
  job.mediaType = 2;
  if (change) change(job);
  if (LockedStore()->addDBJob(job) != 0) throw std::runtime_error("cannot queue " + source);
  return allRows().back().param;
}

void RunnerWorld::start(const KxDBTaskParam& job) {
  KxDBTaskParam running = job;
  running.status = JOB_RUNNING;
  KxDBTask task = taskOf(running);
  const Locked manager;
  manager->createUnit(task);
  LockedStore()->updateDBJobStatus(running);
  manager->unitStart(task);
}

bool RunnerWorld::waitForUnits(std::chrono::milliseconds limit) {
  return waitUntil(
      [] {
        const Locked manager;
        manager->checkUnit();
        return manager->getUnitVec().empty();
      },
      limit);
}

KxDBTaskParam RunnerWorld::run(const std::string& source, uint64_t profiles,
                               const std::function<void(KxDBTaskParam&)>& change) {
  return runAgain(addJob(source, profiles, change));
}

KxDBTaskParam RunnerWorld::runAgain(const KxDBTaskParam& job) {
  start(job);
  if (!waitForUnits()) throw std::runtime_error("the unit does not end");
  return row(job.id);
}

KxDBTaskParam RunnerWorld::row(int64_t id) {
  for (const KxDBTask& task : allRows())
    if (task.param.id == id) return task.param;
  throw std::runtime_error("no such row");
}

std::string RunnerWorld::reason(int64_t id) {
  return LockedStore()->getDBJobReason(id);
}

std::optional<KxTranscodeUnit2> RunnerWorld::unit() {
  const Locked manager;
  const auto units = manager->getUnitVec();
  if (units.empty()) return std::nullopt;
  return units.front();
}

bool RunnerWorld::waitForChild() {
  return waitUntil([this] {
    const auto now = unit();
    return now && now->getPid() > 0;
  });
}

void RunnerWorld::stop(int64_t id) {
  Locked()->unitStop(static_cast<long long>(id));
}

void RunnerWorld::pending(const KxDBTaskParam& job) {
  KxDBTask task = taskOf(job);
  Locked()->unitPending(task);
}

void RunnerWorld::resume(const KxDBTaskParam& job) {
  KxDBTask task = taskOf(job);
  Locked()->unitStart(task);
}

std::vector<std::string> RunnerWorld::leftovers() const {
  std::vector<std::string> names = filesBelow(m_media / ".@__thumb/temp");
  std::error_code ignored;
  for (const auto& entry :
       fs::directory_iterator(m_root.path() + "/data/.system/transcode", ignored))
    names.push_back(entry.path().string());
  return names;
}

size_t RunnerWorld::registrations() {
  size_t count = 0;
  for (const KxResource2& resource : KxResMgr2::getInstance()->getResVec())
    count += resource.reg.size();
  return count;
}

std::optional<Probed> probe(const std::string& path) {
  const std::string pictureFacts =
      "stream=codec_name,profile,width,height,sample_aspect_ratio:stream_side_data=rotation:"
      "stream_tags=rotate";
  const auto video = kxtest::run({"ffprobe", "-v", "error", "-select_streams", "v:0",
                                  "-show_entries", pictureFacts, "-of", "default=nw=1", path});
  const auto audio =
      kxtest::run({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries",
                   "stream=codec_name,channels,sample_rate", "-of", "default=nw=1", path});
  const auto format = kxtest::run(
      {"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "default=nw=1", path});
  if (!video || !audio || !format) return std::nullopt;
  Probed probed;
  probed.width = atoi(field(*video, "width").c_str());
  probed.height = atoi(field(*video, "height").c_str());
  probed.videoCodec = field(*video, "codec_name");
  probed.profile = field(*video, "profile");
  const std::string sar = field(*video, "sample_aspect_ratio");
  const size_t colon = sar.find(':');
  if (colon != std::string::npos && atof(sar.c_str() + colon + 1) > 0 && atof(sar.c_str()) > 0)
    probed.sar = atof(sar.c_str()) / atof(sar.c_str() + colon + 1);
  const std::string rotate = field(*video, "TAG:rotate");
  probed.turned = !field(*video, "rotation").empty() || (!rotate.empty() && rotate != "0");
  probed.audioCodec = field(*audio, "codec_name");
  probed.channels = atoi(field(*audio, "channels").c_str());
  probed.sampleRate = atoi(field(*audio, "sample_rate").c_str());
  probed.seconds = atof(field(*format, "duration").c_str());
  return probed;
}

bool decodesClean(const std::string& path) {
  const auto errors = kxtest::run(
      {"sh", "-c", "ffmpeg -nostdin -v error -xerror -i \"$1\" -f null - 2>&1", "sh", path});
  return errors && errors->empty();
}

bool hasIndexInFront(const std::string& mp4) {
  const std::string head = readFile(mp4);
  const size_t index = head.find("moov");
  const size_t data = head.find("mdat");
  return index != std::string::npos && data != std::string::npos && index < data;
}

}  // namespace kxtest
