#include "tests/resources/ResourceFixtures.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "resources/UnitThread.h"

namespace kxtest {
namespace {
StubRunners* gStubs = nullptr;
}  // namespace

KxDBTask job(long long id, const std::string& src) {
  KxDBTaskParam param;
  param.id = id;
  param.src = src;
  param.jobFlag = 1;
  KxDBTask task;
  task.init(param);
  return task;
}

KxRegister unitRegistration(const std::string& resId, KxRes2_e type, const KxDBTask& task) {
  KxRegister reg;
  reg.init(type, resId, REGJOB_UNIT, task, KxRegInfo());
  return reg;
}

KxRegister processRegistration(const std::string& resId, KxRes2_e type, int pid) {
  KxRegister reg;
  reg.init(type, resId, static_cast<KxRegJobType_e>(1), pid, KxRegInfo());
  return reg;
}

FakeAccelerator::FakeAccelerator(const PrivateRoot& root) : m_root(root) {
  m_root.file("/accel/answers");
  root.script("/sbin/accelctl", "cd '" + root.path() + R"(/accel' || exit 9
call="$1${2:+ $2}"
echo "$call" >> calls
trap 'echo "$call" >> ended' EXIT
if [ -e "hold $call" ]; then read -r go < "hold $call"; fi
[ -e "fail $call" ] && exit 3
[ -e "answer $call" ] && cat "answer $call"
exit 0
)");
  setCards({});
}

std::string FakeAccelerator::part(const std::string& call, const std::string& suffix) const {
  return m_root.file("/accel/" + suffix + call);
}

void FakeAccelerator::setCards(const std::vector<std::string>& ids) const {
  std::string list;
  std::string query = "count=" + std::to_string(ids.size()) + "\n";
  for (const std::string& id : ids) {
    list += id + ":vendor:device:internal:3\n";
    query += id + "\n";
    answer("-s " + id, "real_status=2,transcode=1\n");
  }
  answer("-l", list);
  answer("-q", query);
}

void FakeAccelerator::answer(const std::string& call, const std::string& text) const {
  writeFile(part(call, "answer "), text);
}

void FakeAccelerator::fail(const std::string& call) const {
  writeFile(part(call, "fail "), "");
}

void FakeAccelerator::hold(const std::string& call) const {
  run({"mkfifo", part(call, "hold ")});
}

void FakeAccelerator::release(const std::string& call) const {
  writeFile(part(call, "hold "), "go\n");
}

namespace {
size_t countLines(const std::string& file, const std::string& line) {
  std::istringstream text(readFile(file));
  size_t count = 0;
  for (std::string one; std::getline(text, one);)
    if (one == line) ++count;
  return count;
}
}  // namespace

size_t FakeAccelerator::calls(const std::string& call) const {
  return countLines(m_root.file("/accel/calls"), call);
}

size_t FakeAccelerator::running(const std::string& call) const {
  return calls(call) - countLines(m_root.file("/accel/ended"), call);
}

StubRunners::StubRunners() {
  gStubs = this;
  setUnitThreadRoutine(&StubRunners::routine);
}

StubRunners::~StubRunners() {
  setLingering(false);
  waitUntil([this] { return m_left == m_begun; });
  setUnitThreadRoutine(nullptr);
  gStubs = nullptr;
}

void StubRunners::setLingering(bool isLingering) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_isLingering = isLingering;
  m_mayLeave.notify_all();
}

void* StubRunners::routine(void* arg) {
  gStubs->run(*static_cast<KxTranscodeUnit2*>(arg));
  return nullptr;
}

void StubRunners::run(KxTranscodeUnit2& unit) {
  const KxUnitRun run = unit.beginRun();
  ++m_begun;
  KxUnitState_e state = unit.waitForTurn(run.generation);
  if (state == UNIT_START) {
    const int atWork = ++m_working;
    int most = m_mostAtWork;
    while (atWork > most && !m_mostAtWork.compare_exchange_weak(most, atWork)) {
    }
    unit.setPid(run.generation, 4711);
    unit.setProgress(run.generation, 40);
    while (state == UNIT_START) state = unit.waitWhileRunning(run.generation, 60000);
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_mayLeave.wait(lock, [this] { return !m_isLingering; });
    }
    --m_working;
  }
  ++(state == UNIT_STOP ? m_toldToStop : m_toldToLeave);
  unit.leave(run.generation);
  ++m_left;
}

}  // namespace kxtest
