#include "resources/SegmentJob.h"

#include <unistd.h>

#include <algorithm>

#include "Misc.h"
#include "VelmarPlatform.h"
#include "engines/HostFacts.h"
#include "engines/SegmentPlan.h"
#include "engines/WorkFolder.h"
#include "resources/EncoderLog.h"
#include "resources/PieceCommand.h"
#include "resources/RunnerLog.h"
#include "resources/VideoTimes.h"

namespace runner {
namespace {

constexpr int kSoundKey = 0;
constexpr const char* kSoundFile = "reAudio.mp4";
constexpr const char* kPlanFile = "plan";

// What the lists and patterns of the encoder cannot express.
bool hasAwkwardName(const std::string& path) {
  return path.find_first_of("\"'%\n\r") != std::string::npos;
}

// Cover art counts: the encoder may take it for the picture.
int videoStreams(const KxMediaInfo& info) {
  return static_cast<int>(std::ranges::count_if(
      info.m_streams, [](const KxStream& stream) { return stream.m_type == KX_STREAM_VIDEO; }));
}

bool link(const std::string& target, const std::string& name) {
  return symlink(target.c_str(), name.c_str()) == 0;
}

}  // namespace

SegmentJob::SegmentJob(const VideoContext& video) : m_video(video), m_group(video.run) {}

SegmentJob::~SegmentJob() = default;

uint64_t SegmentJob::run() {
  if (isTurnedOn("SEGMENT") && isWorthwhile()) makeByPieces();
  // What goes whole from here on may need the room.
  if (goOn()) removeCheckpoints(m_video.run.job().id);
  return m_done;
}

void SegmentJob::makeByPieces() {
  m_branches = collectBranches(m_video, m_done);
  openBranches(m_branches);
  if (m_branches.empty() || !goOn()) return;
  const std::string fault = prepare();
  if (!goOn()) return;
  if (fault.empty()) return makeAll();
  KX_RUNNER_LOG("%s goes whole: %s\n", m_video.run.job().src.c_str(), fault.c_str());
}

// What the commands that cut and join would do wrong.
std::string SegmentJob::obstacle() const {
  KxMediaInfo& info = m_video.source.info;
  const KxDBTaskParam& job = m_video.run.job();
  if (m_video.source.facts.isDisc) return "it is a disc";
  if (videoStreams(info) != 1 || job.vid != 0) return "it has not one video track";
  if (info.getAudioTrackCount() > 1) return "it has several audio tracks";
  if (info.getAudioTrackCount() == 1 && job.aid != 0) return "its sound is not wanted";
  if (isPackedSound(info.getAudioTrack(job.aid))) return "its sound has to be unpacked";
  if (hasAwkwardName(job.src) || hasAwkwardName(m_video.temp.pathOf("")) ||
      hasAwkwardName(engines::findTranscodeFolder()))
    return "its path has a quote, a line break or a percent sign";
  return "";
}

// Asks what doSegment() will ask, before anything is set up for it.
bool SegmentJob::isWorthwhile() {
  const KxDBTaskParam& job = m_video.run.job();
  if (selectedVideoRows(job.jobFlag).empty()) return false;
  const std::string fault = obstacle();
  if (!fault.empty()) {
    KX_RUNNER_LOG("%s goes whole: %s\n", job.src.c_str(), fault.c_str());
    return false;
  }
  TranscodeParam param;
  param.m_inFile = job.src;
  param.m_sid = job.sid;
  param.m_subtitle = m_video.subtitle;
  std::vector<engines::EngineNote> notes;
  const KxPlatform platform;
  KxMediaInfo& info = m_video.source.info;
  const bool suits =
      engines::sourceCanBeCut(param, info.m_duration, info.getVideoTrack(job.vid), notes) &&
      engines::platformCanCut(platform.getPlatformName(), platform.getPlatformType(), notes);
  if (!suits) engines::logNotes(notes);
  return suits;
}

// Bytes of the pieces that an earlier run cut and used up: the room for them is not needed again.
int64_t SegmentJob::usedUp() const {
  const CutPlan plan = planOfText(m_checkpoint->text(kPlanFile));
  if (!plan.fault.empty()) return 0;
  int64_t used = 0;
  for (size_t piece = 0; piece < plan.pieces.size(); ++piece)
    if (!engines::exists(m_checkpoint->path(m_source->piece(piece)))) ++used;
  return m_video.source.stamp.size * used / static_cast<int64_t>(plan.pieces.size());
}

bool SegmentJob::hasRoom() {
  KxDBTaskParam job = m_video.run.job();
  job.fileSize = m_video.source.stamp.size;
  job.duration = m_video.source.info.m_duration;
  job.jobFlag = 0;
  for (const Branch& branch : m_branches) job.jobFlag |= branch.bit();
  const KxJobRoom room = kxJobRoom(job);
  const std::string work = engines::findTranscodeFolder();
  struct stat workFolder {};
  struct stat results {};
  const bool isSameVolume = stat(work.c_str(), &workFolder) == 0 &&
                            fstat(m_video.temp.fd(), &results) == 0 &&
                            workFolder.st_dev == results.st_dev;
  const int64_t needed =
      room.pieces + (isSameVolume ? room.beside : 0) - m_checkpoint->size() - usedUp();
  m_room = std::make_unique<WorkRoom>(work, std::max<int64_t>(needed, 0));
  return m_room->isGranted();
}

// @return why the source is not cut
std::string SegmentJob::prepare() {
  const TranscodeParam& param = m_branches.front().profile->transcoder().getParam();
  m_checkpoint = Checkpoint::open(m_video.run.job(), m_video.source.stamp,
                                  "cut " + std::to_string(param.m_formatId) + " " +
                                      std::to_string(param.m_aChannel));
  if (!m_checkpoint) return "there is no place for its pieces";
  m_source =
      std::make_unique<CutSource>(CutSource{m_video, *m_checkpoint, m_plan, param.m_formatId});
  if (!hasRoom()) return "the volume of the work folders lacks the room for its pieces";
  std::erase_if(m_branches, [&](const Branch& branch) {
    const TranscodeParam& other = branch.profile->transcoder().getParam();
    return other.m_formatId != param.m_formatId || other.m_aChannel != param.m_aChannel;
  });
  std::string fault = continueCut();
  if (!fault.empty() && goOn()) fault = cut();
  return fault;
}

// Takes up what an earlier run left. @return why it has to be cut anew
std::string SegmentJob::continueCut() {
  m_plan = planOfText(m_checkpoint->text(kPlanFile));
  if (!m_plan.fault.empty()) return m_plan.fault;
  std::string fault = openResults();
  for (size_t piece = 0; fault.empty() && piece < m_plan.pieces.size(); ++piece) {
    const bool isMade = std::ranges::all_of(
        m_pieceBranches, [piece](const PieceBranch& branch) { return branch.made[piece]; });
    if (!isMade && !isWhole(m_source->piece(piece))) fault = "a piece is missing";
  }
  if (!fault.empty()) return fault;
  size_t made = 0;
  for (const PieceBranch& branch : m_pieceBranches)
    made += static_cast<size_t>(std::ranges::count(branch.made, true));
  KX_RUNNER_LOG_LEVEL(4, "%s goes on with %zu of %zu pieces made\n", m_video.run.job().src.c_str(),
                      made, m_plan.pieces.size() * m_pieceBranches.size());
  return isWhole(kSoundFile) ? "" : startSound();
}

std::string SegmentJob::cut() {
  const auto times = readVideoTimes(m_video.run.job().src, [this] { return goOn(); });
  if (!times) return "its pictures have no usable times";
  std::string fault = rasterFault(*times);
  if (!fault.empty()) return fault;
  KxTranscoder& transcoder = m_branches.front().profile->transcoder();
  bool isSound = true;  // the first child is
  transcoder.setChildWaiter([&](int pid) {
    if (!std::exchange(isSound, false)) return followCutter(pid);
    // The sound is encoded beside the pictures: nothing needs it before they are joined.
    m_isSoundRunning = true;
    m_group.add(kSoundKey, pid,
                {nullptr, {transcoder.getProgressLogPath(), transcoder.getSideAudioPath()}});
    return 0;
  });
  m_checkpoint->remove(kSoundFile);
  const bool isCut = transcoder.doSegment() == 0;
  transcoder.setChildWaiter({});
  if (!isCut) return "it could not be cut";
  const std::vector<Seg_t> segments = transcoder.getSegments();
  std::vector<int64_t> packets;
  packets.reserve(segments.size());
  for (const Seg_t& segment : segments) packets.push_back(statedPictures(segment.segIn));
  m_plan = planCut(*times, packets);
  if (!m_plan.fault.empty()) return m_plan.fault;
  fault = keepPieces(segments);
  return fault.empty() ? openResults() : fault;
}

int SegmentJob::followCutter(int pid) {
  const KxTranscoder& transcoder = m_branches.front().profile->transcoder();
  const ChildEnd end = followChild(m_video.run, pid, {nullptr, {transcoder.getProgressLogPath()}});
  return end.ok() ? 0 : 1;
}

std::string SegmentJob::keepPieces(const std::vector<Seg_t>& segments) {
  const auto mayGoOn = [this] { return goOn(); };
  m_checkpoint->remove(kPlanFile);
  for (size_t i = 0; i < segments.size(); ++i) {
    if (!m_checkpoint->keep(segments[i].segIn, m_source->piece(i), mayGoOn))
      return "its pieces cannot be kept";
  }
  return m_checkpoint->keepText(textOfPlan(m_plan), kPlanFile) ? "" : "its pieces cannot be kept";
}

std::string SegmentJob::startSound() {
  KxTranscoder& transcoder = m_branches.front().profile->transcoder();
  const std::vector<std::string> command = transcoder.genFfmpegReAudioParams_();
  const int pid =
      command.empty() ? -1 : miscLaunchCmdNoWait(command, transcoder.getProgressLogPath());
  if (pid <= 0) return "its sound could not be encoded";
  m_isSoundRunning = true;
  m_group.add(kSoundKey, pid,
              {nullptr, {transcoder.getProgressLogPath(), transcoder.getSideAudioPath()}});
  return "";
}

void SegmentJob::onSoundEnd(const ChildGroup::Ended& ended) {
  m_isSoundRunning = false;
  KxTranscoder& transcoder = m_branches.front().profile->transcoder();
  if (!ended.end.ok()) {
    m_soundFault = "the encoder of the sound " + ended.end.text();
  } else if (!m_checkpoint->keep(transcoder.getSideAudioPath(), kSoundFile,
                                 [this] { return goOn(); })) {
    m_soundFault = "the sound cannot be kept";
  }
  // Without it all pieces would be made for nothing.
  for (PieceBranch& branch : m_pieceBranches)
    if (branch.fault.empty()) branch.fault = m_soundFault;
}

std::string SegmentJob::waitForSound() {
  while (m_isSoundRunning) {
    const auto ended = m_group.waitForOne({});
    if (!ended) return "was stopped";
    onSoundEnd(*ended);
  }
  return m_soundFault;
}

// Opens the folders of the results and finds out which are there.
std::string SegmentJob::openResults() {
  m_pieceBranches.clear();
  for (Branch& branch : m_branches) {
    PieceBranch made{&branch, "", std::vector<bool>(m_plan.pieces.size())};
    std::string parameters;
    for (const std::string& word : branch.command)
      if (word != branch.profile->file().path()) parameters += word + "\n";
    if (!m_checkpoint->openPart(made.folder(), parameters)) return "there is no place for results";
    for (size_t piece = 0; piece < made.made.size() && goOn(); ++piece)
      made.made[piece] = isIntact(made, piece);
    m_pieceBranches.push_back(std::move(made));
  }
  return "";
}

bool SegmentJob::isWhole(const std::string& name) const {
  return m_checkpoint->isWhole(name, [this] { return goOn(); });
}

bool SegmentJob::isIntact(const PieceBranch& branch, size_t piece) const {
  const std::string name = m_source->result(branch, piece);
  if (!isWhole(name)) return false;
  const auto times = readVideoTimes(m_checkpoint->path(name), [this] { return goOn(); });
  const bool isLast = piece + 1 == m_plan.pieces.size();
  return times && framesFault(*times, m_plan, m_plan.pieces[piece].frames, isLast).empty();
}

void SegmentJob::makeAll() {
  std::vector<PieceBranch*> all;
  for (PieceBranch& branch : m_pieceBranches) all.push_back(&branch);
  if (isTurnedOn("FANOUT")) return make(all);
  for (PieceBranch* branch : all) {
    if (goOn()) make({branch});
  }
}

void SegmentJob::make(const std::vector<PieceBranch*>& branches) {
  {
    PieceWork work(*m_source, branches.size() > 1, m_group);
    work.run(
        branches, [this](const ChildGroup::Ended& ended) { onSoundEnd(ended); },
        [this](size_t piece) { dropUsedPiece(piece); });
  }
  for (PieceBranch* branch : branches) {
    if (goOn()) finish(*branch);
  }
}

void SegmentJob::finish(PieceBranch& branch) {
  VideoProfile& profile = *branch.branch->profile;
  if (branch.fault.empty() && !branch.isMade()) branch.fault = "there is no transcoding resource";
  if (branch.fault.empty()) branch.fault = waitForSound();
  if (branch.fault.empty()) branch.fault = join(branch);
  if (branch.fault.empty()) branch.fault = profile.put();
  if (branch.fault.empty()) {
    m_done |= branch.branch->bit();
    m_video.run.showProgress(100);
  } else if (goOn()) {
    const std::string text = branch.branch->config().name + " by pieces: " + branch.fault;
    KX_RUNNER_LOG_LEVEL(2, "%s of %s, we transcode the whole file\n", text.c_str(),
                        m_video.run.job().src.c_str());
    m_video.run.remark(text + "; done whole");
  }
  if (goOn()) m_checkpoint->remove(branch.branch->config().name);
}

std::string SegmentJob::join(PieceBranch& branch) {
  VideoProfile& profile = *branch.branch->profile;
  KxTranscoder& transcoder = profile.transcoder();
  profile.file().clear();
  std::string fault = linkResults(branch, transcoder);
  if (!fault.empty()) return fault;
  transcoder.setChildWaiter([&](int pid) {
    return followChild(m_video.run, pid,
                       {nullptr, {transcoder.getProgressLogPath(), profile.file().path()}})
                   .ok()
               ? 0
               : 1;
  });
  if (transcoder.doMerge() != 0)
    return "the pieces could not be joined: " + complaintOf(transcoder.getProgressLogPath());
  fault = profile.finishJoined();
  if (!fault.empty()) return fault;
  const auto times = readVideoTimes(profile.file().path(), [this] { return goOn(); });
  if (!times) return "the joined result cannot be read";
  fault = framesFault(*times, m_plan, m_plan.frames(), true);
  return fault.empty() ? "" : "the joined result: " + fault;
}

// Puts everything that is joined where doMerge() looks for it.
std::string SegmentJob::linkResults(PieceBranch& branch, KxTranscoder& transcoder) {
  std::vector<Seg_t> segments;
  bool allLinked = link(m_checkpoint->path(kSoundFile), transcoder.getSideAudioPath());
  for (size_t piece = 0; piece < m_plan.pieces.size(); ++piece) {
    segments.push_back(engines::segmentAt(transcoder.getWorkFolder(), m_source->formatId, piece));
    allLinked = allLinked &&
                link(m_checkpoint->path(m_source->result(branch, piece)), segments.back().segOut);
  }
  transcoder.takeSegments(std::move(segments));
  return allLinked ? "" : "the pieces cannot be linked";
}

void SegmentJob::dropUsedPiece(size_t piece) {
  const bool isUsed = std::ranges::all_of(m_pieceBranches, [piece](const PieceBranch& branch) {
    return branch.made[piece] || !branch.fault.empty();
  });
  if (isUsed) m_checkpoint->remove(m_source->piece(piece));
}

}  // namespace runner
