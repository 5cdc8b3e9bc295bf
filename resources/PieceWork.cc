#include "resources/PieceWork.h"

#include <algorithm>
#include <cstdio>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "engines/HostFacts.h"
#include "engines/SegmentPlan.h"
#include "engines/SharedCommand.h"
#include "resources/EncoderLog.h"
#include "resources/PieceCommand.h"
#include "resources/RunnerLog.h"
#include "resources/VideoTimes.h"

namespace runner {
namespace {

std::string baseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// Parameters that make one piece into what the whole source would become.
TranscodeParam pieceParam(KxTranscoder& whole, const std::string& input,
                          const std::string& output) {
  TranscodeParam param = whole.getParam();
  param.m_inFile = input;
  param.m_outFile = output;
  param.m_vid = 0;
  param.m_aid = -1;  // pieces have no sound
  param.m_rotate = whole.getTranscodeDegree_();
  return param;
}

}  // namespace

bool PieceBranch::isMade() const {
  return std::ranges::find(made, false) == made.end();
}

std::string CutSource::piece(size_t index) const {
  return baseName(engines::segmentAt("/", formatId, index).segIn);
}

std::string CutSource::result(const PieceBranch& branch, size_t index) const {
  return branch.folder() + baseName(engines::segmentAt("/", formatId, index).segOut);
}

// A resource as far as pieces use it.
struct PieceWork::Engine {
  size_t number;
  KxResource2 resource;
  bool isCpu;
  int slots;  // pieces that it may take on now
  bool isUsable = true;
  std::unique_ptr<Registration> registration;  // from the first piece on
};

// One piece's share of a resource while it lives.
class PieceWork::Slot {
 public:
  explicit Slot(Engine& engine) : m_engine(engine) { --m_engine.slots; }
  ~Slot() { ++m_engine.slots; }
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

 private:
  Engine& m_engine;
};

// The transcoder of one result.
struct PieceWork::Encoder {
  KxTranscoder transcoder;
  Cleanup cleanup{[this] { return transcoder.getWorkFolder(); }};
  std::string output;
};

// One child: a piece for one profile, or for several from one decoding.
struct PieceWork::Task {
  Engine& engine;
  size_t piece;
  std::vector<PieceBranch*> branches;
  std::vector<std::unique_ptr<Encoder>> encoders;  // in their order; fewer when one has a fault
  std::unique_ptr<Slot> slot;                      // while the encoder runs
  bool isRecounted = false;                        // by the child that runs now

  const Encoder& first() const { return *encoders.front(); }
  std::string recounted() const { return first().output + ".recounted.mp4"; }
};

PieceWork::PieceWork(const CutSource& source, bool isShared, ChildGroup& group)
    : m_source(source), m_isShared(isShared), m_group(group) {
  for (const KxResource2& resource : resourcesToTry(2)) {
    const bool isCpu = resource.resType == RES2_SW_CPU;
    const int slots = isCpu ? pieceThreads(MyUtil_GetCpuNum()).pieces : 1;
    m_engines.push_back(
        std::make_unique<Engine>(Engine{m_engines.size(), resource, isCpu, slots, true, nullptr}));
  }
}

PieceWork::~PieceWork() = default;

void PieceWork::run(const std::vector<PieceBranch*>& branches, const OtherEnd& onOther,
                    const Made& onMade) {
  m_branches = branches;
  m_onMade = onMade;
  showProgress();
  startTasks();
  while (!m_tasks.empty()) {
    const auto ended = m_group.waitForOne([this] { showProgress(); });
    if (!ended) {  // the run has to end
      m_tasks.clear();
      return;
    }
    if (auto task = m_tasks.extract(ended->key)) {
      settle(std::move(task.mapped()), ended->end);
    } else {
      onOther(*ended);
    }
    endUnwantedTasks();
    startTasks();
  }
}

// A profile that was given up goes whole without waiting for its other pieces.
void PieceWork::endUnwantedTasks() {
  for (auto task = m_tasks.begin(); task != m_tasks.end();) {
    const bool isWanted = std::ranges::any_of(
        task->second->branches, [](const PieceBranch* branch) { return branch->fault.empty(); });
    if (isWanted) {
      ++task;
      continue;
    }
    m_group.end(task->first);
    task = m_tasks.erase(task);
  }
}

// Other children of the group work on the processors too. The sound would be ready last if it
// had to share its processor with a piece.
bool PieceWork::hasSlot(const Engine& engine) const {
  if (!engine.isCpu) return engine.slots > 0;
  const int all = pieceThreads(MyUtil_GetCpuNum()).pieces;
  const int others = static_cast<int>(m_group.size() - m_tasks.size());
  return all - engine.slots < std::max(1, all - others);
}

// What does not start on one resource may be free for another that was asked before it.
void PieceWork::startTasks() {
  for (bool again = true; again;) {
    again = false;
    for (const auto& engine : m_engines) {
      while (engine->isUsable && hasSlot(*engine) && startTaskOn(*engine)) again = true;
    }
  }
}

// @return false when there is nothing for the resource to do
bool PieceWork::startTaskOn(Engine& engine) {
  for (size_t piece = 0; piece < m_source.plan.pieces.size(); ++piece) {
    const std::vector<PieceBranch*> branches = chooseFor(engine, piece);
    if (branches.empty()) continue;
    if (!useEngine(engine)) return false;
    startTask(prepare(engine, piece, branches));
    return true;
  }
  return false;
}

void PieceWork::startTask(std::unique_ptr<Task> task) {
  const int pid = launch(*task);
  if (pid <= 0) return failAll(*task, "the encoder could not be started");
  task->slot = std::make_unique<Slot>(task->engine);
  follow(std::move(task), pid);
}

void PieceWork::follow(std::unique_ptr<Task> task, int pid) {
  KxTranscoder& transcoder = task->encoders.front()->transcoder;
  const bool isEncoded = task->isRecounted;
  m_group.add(m_nextKey, pid,
              {[&transcoder, isEncoded] { return isEncoded ? 100 : transcoder.getProgress(); },
               {transcoder.getProgressLogPath(), task->first().output, task->recounted()}});
  m_tasks.emplace(m_nextKey++, std::move(task));
}

std::vector<PieceBranch*> PieceWork::chooseFor(const Engine& engine, size_t piece) {
  std::vector<PieceBranch*> chosen;
  for (PieceBranch* branch : m_branches) {
    if (!isFree(*branch, piece, engine)) continue;
    const bool mayShare = m_isShared && engine.isCpu && !m_alone[{branch, piece}];
    if (!mayShare) {
      if (chosen.empty()) return {branch};
      continue;
    }
    chosen.push_back(branch);
  }
  return chosen;
}

bool PieceWork::isFree(const PieceBranch& branch, size_t piece, const Engine& engine) const {
  if (!branch.fault.empty() || branch.made[piece]) return false;
  const bool isRunning = std::ranges::any_of(m_tasks, [&](const auto& task) {
    return task.second->piece == piece &&
           std::ranges::find(task.second->branches, &branch) != task.second->branches.end();
  });
  if (isRunning) return false;
  const auto failed = m_failed.find({&branch, piece});
  return failed == m_failed.end() ||
         std::ranges::find(failed->second, engine.number) == failed->second.end();
}

bool PieceWork::useEngine(Engine& engine) {
  if (engine.registration) return true;
  engine.registration = std::make_unique<Registration>(
      m_source.video.run, std::vector{engine.resource}, videoRegistration(m_source.video));
  engine.isUsable = engine.registration->valid();
  return engine.isUsable;
}

std::unique_ptr<PieceWork::Task> PieceWork::prepare(Engine& engine, size_t piece,
                                                    const std::vector<PieceBranch*>& branches) {
  auto task = std::make_unique<Task>(Task{engine, piece, branches, {}, nullptr, false});
  const std::string input = m_source.checkpoint.path(m_source.piece(piece));
  for (const PieceBranch* branch : branches) {
    auto encoder = std::make_unique<Encoder>();
    encoder->output = m_source.checkpoint.newName(m_source.result(*branch, piece));
    TranscodeParam param =
        pieceParam(branch->branch->profile->transcoder(), input, encoder->output);
    // A card that cannot make the sound refuses the command, though a piece has none.
    if (!engine.isCpu) param.m_aCodecId = KX_CODEC_MP3;
    if (encoder->transcoder.init(param) != 0) return task;
    task->encoders.push_back(std::move(encoder));
  }
  return task;
}

int PieceWork::launch(Task& task) {
  if (task.encoders.size() < task.branches.size()) return -1;
  if (task.engine.isCpu) return launchOnCpu(task);
  return task.encoders.front()->transcoder.transcode(task.engine.resource, true);
}

int PieceWork::launchOnCpu(Task& task) {
  const int threads = pieceThreads(MyUtil_GetCpuNum()).threads;
  std::vector<std::vector<std::string>> commands;
  for (const auto& encoder : task.encoders) {
    commands.push_back(
        pieceCommand(encoder->transcoder.getSWCommand(), m_source.plan, task.piece, threads));
  }
  const std::vector<std::string> command = engines::sharedCommand(commands);
  if (command.empty()) return -1;
  return miscLaunchCmdNoWait(command, task.first().transcoder.getProgressLogPath());
}

void PieceWork::settle(std::unique_ptr<Task> task, const ChildEnd& end) {
  task->slot.reset();
  // A card that hung once would hold up every piece that it gets.
  if (end.kind == ChildEnd::Kind::Stalled && !task->engine.isCpu) task->engine.isUsable = false;
  if (!end.ok()) {
    const std::string line = complaintOf(task->first().transcoder.getProgressLogPath());
    return failAll(*task, "the encoder " + end.text() + (line.empty() ? "" : ": " + line));
  }
  if (mustRecount(*task)) return recount(std::move(task));
  if (task->isRecounted && rename(task->recounted().c_str(), task->first().output.c_str()) != 0)
    return failAll(*task, "the result cannot be renamed");
  for (PieceBranch* branch : task->branches) {
    const std::string fault = checkAndKeep(*task, *branch);
    if (m_source.video.run.mustEnd()) return;
    if (!fault.empty()) fail(*task, *branch, fault);
  }
  showProgress();
}

bool PieceWork::mustRecount(const Task& task) const {
  return !task.engine.isCpu && !task.isRecounted && m_source.formatId == KX_FORMAT_MP4;
}

void PieceWork::recount(std::unique_ptr<Task> task) {
  const auto service = engines::mediaService();
  const int pid = service
                      ? miscLaunchCmdNoWait(recountCommand(service->ffmpegPath, m_source.plan,
                                                           task->first().output, task->recounted()),
                                            task->first().transcoder.getProgressLogPath())
                      : -1;
  if (pid <= 0) return failAll(*task, "the encoder could not be started");
  task->isRecounted = true;
  follow(std::move(task), pid);
}

void PieceWork::failAll(const Task& task, const std::string& fault) {
  for (PieceBranch* branch : task.branches) fail(task, *branch, fault);
  showProgress();
}

std::string PieceWork::checkAndKeep(const Task& task, PieceBranch& branch) {
  const auto goOn = [this] { return !m_source.video.run.mustEnd(); };
  const std::string name = m_source.result(branch, task.piece);
  const std::string output = m_source.checkpoint.newName(name);
  const auto times = readVideoTimes(output, goOn);
  if (!times) return "the result of the piece cannot be read";
  const bool isLast = task.piece + 1 == m_source.plan.pieces.size();
  std::string fault =
      framesFault(*times, m_source.plan, m_source.plan.pieces[task.piece].frames, isLast);
  if (!fault.empty()) return fault;
  if (!m_source.checkpoint.keep(output, name, goOn)) return "the result cannot be written";
  KX_RUNNER_LOG("resId(%s) transcode success\n", task.engine.resource.id.c_str());
  branch.made[task.piece] = true;
  m_onMade(task.piece);
  return "";
}

void PieceWork::fail(const Task& task, PieceBranch& branch, const std::string& fault) {
  const std::string& id = task.engine.resource.id;
  KX_RUNNER_LOG("unit transcode error on resId(%s)\n", id.c_str());
  KX_RUNNER_LOG_LEVEL(3, "piece %zu of %s for %s on %s: %s\n", task.piece,
                      m_source.video.run.job().src.c_str(), branch.branch->config().name.c_str(),
                      id.c_str(), fault.c_str());
  if (task.branches.size() > 1) {
    m_alone[{&branch, task.piece}] = true;
    return;
  }
  Tries& tries = m_failed[{&branch, task.piece}];
  tries.push_back(task.engine.number);
  const bool isHopeless = std::ranges::all_of(m_engines, [&](const auto& engine) {
    return !engine->isUsable || std::ranges::find(tries, engine->number) != tries.end();
  });
  if (isHopeless) branch.fault = "piece " + std::to_string(task.piece) + ": " + fault;
}

void PieceWork::showProgress() const {
  double done = 0;
  double all = 0;
  for (const PieceBranch* branch : m_branches) {
    for (size_t piece = 0; piece < m_source.plan.pieces.size(); ++piece) {
      const auto frames = static_cast<double>(m_source.plan.pieces[piece].frames);
      all += frames;
      if (branch->made[piece]) done += frames;
    }
  }
  for (const auto& [key, task] : m_tasks) {
    const auto frames = static_cast<double>(m_source.plan.pieces[task->piece].frames);
    done += frames * static_cast<double>(task->branches.size()) * m_group.percent(key) / 100;
  }
  constexpr double kBeforeJoining = 99;
  if (all > 0) m_source.video.run.showProgress(static_cast<int>(done * kBeforeJoining / all));
}

}  // namespace runner
