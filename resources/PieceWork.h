#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "resources/Branch.h"
#include "resources/Checkpoint.h"
#include "resources/CutPlan.h"
#include "resources/ResourceUse.h"

namespace runner {

// One profile of a job that goes by pieces.
struct PieceBranch {
  Branch* branch = nullptr;
  std::string fault;       // why it does not go by pieces after all
  std::vector<bool> made;  // by piece

  bool isMade() const;
  std::string folder() const { return branch->config().name + "/"; }  // in the checkpoint
};

// What a job's pieces have in common. Refers to what the job owns.
struct CutSource {
  const VideoContext& video;
  const Checkpoint& checkpoint;
  const CutPlan& plan;
  int formatId;

  // Names in the checkpoint.
  std::string piece(size_t index) const;
  std::string result(const PieceBranch& branch, size_t index) const;
};

// Makes the missing results of pieces, side by side on all resources, registered on each one that
// is used. A piece that a resource fails on goes to the next one; a card that makes no progress
// gets no more of them. A profile whose piece all resources fail on is given up, and the rest goes
// on. Used by the runner's thread alone.
class PieceWork {
 public:
  // @param isShared several profiles of a piece from one decoding where the CPU makes them
  // @param group takes the encoders
  PieceWork(const CutSource& source, bool isShared, ChildGroup& group);
  ~PieceWork();
  PieceWork(const PieceWork&) = delete;
  PieceWork& operator=(const PieceWork&) = delete;

  // Told of each child of the group that is none of this object's.
  using OtherEnd = std::function<void(const ChildGroup::Ended& ended)>;
  // Told when a result is kept.
  using Made = std::function<void(size_t piece)>;
  // Works until no result is missing that can be made, or the run has to end.
  void run(const std::vector<PieceBranch*>& branches, const OtherEnd& onOther, const Made& onMade);

 private:
  struct Engine;
  struct Encoder;
  struct Task;
  class Slot;
  using Tries = std::vector<size_t>;  // engines that failed on a result

  bool hasSlot(const Engine& engine) const;
  void startTasks();
  bool startTaskOn(Engine& engine);
  void startTask(std::unique_ptr<Task> task);
  void follow(std::unique_ptr<Task> task, int pid);
  void endUnwantedTasks();
  std::vector<PieceBranch*> chooseFor(const Engine& engine, size_t piece);
  bool isFree(const PieceBranch& branch, size_t piece, const Engine& engine) const;
  std::unique_ptr<Task> prepare(Engine& engine, size_t piece,
                                const std::vector<PieceBranch*>& branches);
  int launch(Task& task);
  int launchOnCpu(Task& task);
  void settle(std::unique_ptr<Task> task, const ChildEnd& end);
  bool mustRecount(const Task& task) const;
  void recount(std::unique_ptr<Task> task);
  void failAll(const Task& task, const std::string& fault);
  std::string checkAndKeep(const Task& task, PieceBranch& branch);
  void fail(const Task& task, PieceBranch& branch, const std::string& fault);
  bool useEngine(Engine& engine);
  void showProgress() const;

  const CutSource& m_source;
  const bool m_isShared;
  ChildGroup& m_group;
  std::vector<std::unique_ptr<Engine>> m_engines;
  std::vector<PieceBranch*> m_branches;
  std::map<int, std::unique_ptr<Task>> m_tasks;  // running, by the key of their child
  std::map<std::pair<const PieceBranch*, size_t>, Tries> m_failed;
  std::map<std::pair<const PieceBranch*, size_t>, bool> m_alone;  // no more from a shared encoder
  Made m_onMade;
  int m_nextKey = 1;
};

}  // namespace runner
