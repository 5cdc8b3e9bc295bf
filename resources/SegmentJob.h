#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "resources/PieceWork.h"
#include "resources/WorkRoom.h"

namespace runner {

// Makes the video profiles of a long source in pieces: cuts it without encoding, encodes the
// pieces side by side over the resources, joins them with the sound that was encoded once. What
// is finished is kept, so that a job that was interrupted in whatever way does only what is
// missing when it runs again.
//
// Nothing depends on its success: a source that cannot be cut without a trace and a profile that
// fails are left to be made whole. Off unless the key SEGMENT is 1.
class SegmentJob {
 public:
  explicit SegmentJob(const VideoContext& video);
  ~SegmentJob();
  SegmentJob(const SegmentJob&) = delete;
  SegmentJob& operator=(const SegmentJob&) = delete;
  // Runs until every result that came out well is in place.
  // @return the rows of the profile table that are done, as bits of a job's flags; among them
  // those that were in place before
  uint64_t run();

 private:
  void makeByPieces();
  std::string obstacle() const;
  bool isWorthwhile();
  int64_t usedUp() const;
  bool hasRoom();
  std::string prepare();
  std::string continueCut();
  std::string cut();
  std::string keepPieces(const std::vector<Seg_t>& segments);
  std::string startSound();
  int followCutter(int pid);
  void onSoundEnd(const ChildGroup::Ended& ended);
  std::string waitForSound();
  std::string openResults();
  bool isWhole(const std::string& name) const;
  bool isIntact(const PieceBranch& branch, size_t piece) const;
  void makeAll();
  void make(const std::vector<PieceBranch*>& branches);
  void finish(PieceBranch& branch);
  std::string join(PieceBranch& branch);
  std::string linkResults(PieceBranch& branch, KxTranscoder& transcoder);
  void dropUsedPiece(size_t piece);
  bool goOn() const { return !m_video.run.mustEnd(); }

  const VideoContext m_video;
  std::vector<Branch> m_branches;
  std::vector<PieceBranch> m_pieceBranches;
  std::unique_ptr<WorkRoom> m_room;
  std::optional<Checkpoint> m_checkpoint;
  CutPlan m_plan;
  std::unique_ptr<CutSource> m_source;
  ChildGroup m_group;
  bool m_isSoundRunning = false;
  std::string m_soundFault;
  uint64_t m_done = 0;
};

}  // namespace runner
