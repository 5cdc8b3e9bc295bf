#include "KxTranscoder.h"

#include <utility>

#include "Misc.h"
#include "VelmarPlatform.h"
#include "engines/AgentCommand.h"
#include "engines/DiscSource.h"
#include "engines/EngineCommand.h"
#include "engines/EngineNote.h"
#include "engines/ExtractedSubtitle.h"
#include "engines/HostFacts.h"
#include "engines/OutputSize.h"
#include "engines/ProfileSelection.h"
#include "engines/ProgressReader.h"
#include "engines/SegmentMerge.h"
#include "engines/SegmentPlan.h"
#include "engines/SoftwareCommand.h"
#include "engines/WorkFolder.h"
#include "frame/ChildProcess.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";

using engines::codecName;
using engines::exists;
using engines::mediaService;

namespace {

constexpr const char* kFfmpegPath = "/usr/local/medialibrary/bin/ffmpeg";

const char* text(bool value) {
  return value ? "true" : "false";
}

std::string staticFfmpeg() {
  char path[1024] = "";
  if (MyUtil_getStaticFfmpegPath(path, sizeof path) == 0 && path[0] != '\0') return path;
  return miscSystemPath(kFfmpegPath);
}

}  // namespace

KxTranscoder::KxTranscoder() : m_source(std::make_unique<engines::DiscSource>()), m_progress(0) {}

KxTranscoder::~KxTranscoder() {
  if (umountIso_() != 0) KX_LOG("umount iso fail\n");
}

int KxTranscoder::init(TranscodeParam& param) {
  m_param = param;
  if (checkRequest_() != 0 || openSource_() != 0 || applyProfile_() != 0) return 1;
  if (prepareWorkFolder_() != 0) return 1;
  const auto wait = [this](int pid) { return waitForChild_(pid); };
  if (engines::prepareSubtitle(m_param, {m_progressLog, wait}) != 0) return 1;
  return checkOutput_();
}

int KxTranscoder::checkRequest_() const {
  if (m_param.m_isPipeIn) {
    KX_LOG_AS("init", "we do not support pipe in mode for now");
    return 1;
  }
  KX_LOG_AS("init", "pipeout=%s, outFile.empty()=%s\n", text(m_param.m_isPipeOut),
            text(m_param.m_outFile.empty()));
  if (!exists(m_param.m_inFile)) {
    KX_LOG_AS("init", "m_inFile %s is invalid\n", m_param.m_inFile.c_str());
    return 1;
  }
  return 0;
}

int KxTranscoder::openSource_() {
  if (m_source->attach(m_param.m_inFile) != 0) return 1;
  if (m_source->probe(m_mediaInfo) == 0) return 0;
  KX_LOG_AS("init", "mediainfo init fail\n");
  return 1;
}

int KxTranscoder::applyProfile_() {
  std::vector<engines::EngineNote> notes;
  const TransConfigEntry* row = engines::selectProfile(m_param.m_profile, notes);
  if (row != nullptr) {
    engines::applyProfile(*row, m_mediaInfo.getAudioTrack(m_param.m_aid),
                          MyUtil_hasAACSupport() != 0, m_param);
  }
  const int result = engines::checkParameters(m_param, notes);
  engines::logNotes(notes);
  return result;
}

int KxTranscoder::prepareWorkFolder_() {
  const std::string parent = engines::transcodeFolder();
  if (parent.empty()) return 1;
  std::string name;
  if (miscGenUniqueFileName(name) != 0) {
    KX_LOG_AS("init", "generate tmp name fail\n");
    return 1;
  }
  m_workFolder = engines::makeWorkFolder(parent, name);
  if (m_workFolder.empty()) return 1;
  m_progressLog = m_workFolder + "._progress.log";
  const bool bareName =
      !m_param.m_outFile.empty() && m_param.m_outFile.find('/') == std::string::npos;
  if (bareName) m_param.m_outFile = parent + m_param.m_outFile;
  return 0;
}

int KxTranscoder::checkOutput_() const {
  if (!m_param.m_outFile.empty() || m_param.m_isPipeOut) return 0;
  KX_LOG_AS("init", "output parameter error\n");
  return 1;
}

std::string KxTranscoder::getSWFfmpegFilenameInput() {
  return m_source->encoderInput();
}

const std::string& KxTranscoder::getOpenedSource() const {
  return m_source->hostPath();
}

std::vector<std::string> KxTranscoder::getTitleFiles() {
  return m_source->titleFiles();
}

int KxTranscoder::umountIso_() {
  return m_source->release();
}

void KxTranscoder::appendExtraCmds(const std::vector<std::string>& arguments) {
  m_param.m_extraCmds.insert(m_param.m_extraCmds.end(), arguments.begin(), arguments.end());
}

int KxTranscoder::transcode(KxResource2& res, bool withLog) {
  if (res.isEmpty) return -1;
  switch (res.resType) {
  case RES2_GPU_INTERNAL:
    return hwTranscode(res, m_source->hostPath(), m_param.m_outFile, withLog);
  case RES2_GPU_EXTERNAL:
  case RES2_ARM_RTK:
  case RES2_ARM_RK:
    return hwTranscode(res, m_source->addOnPath(), m_param.m_outFile, withLog);
  case RES2_SW_CPU:
    break;
  default:
    KX_LOG("this is unknow resource, we use sw transcode\n");
  }
  const std::string input = getSWFfmpegFilenameInput();
  if (input.empty()) return -1;
  return swTranscode(input, m_param.m_outFile, withLog);
}

int KxTranscoder::hwTranscode(KxResource2& res, std::string input, std::string output,
                              bool withLog) {
  if (res.isEmpty) {
    KX_LOG("resource is empty\n");
    return -1;
  }
  if (!exists(input)) {
    KX_LOG("the transcode target %s is invalid\n", input.c_str());
    return -1;
  }
  const std::optional<MediaSvcVarInfo> service = mediaService();
  if (!service) {
    KX_LOG("no tool\n");
    return -1;
  }
  engines::EngineFacts facts = gatherFacts_(input, output);
  facts.program = service->agentPath;
  facts.audioEncoders = service->audioEncoders;
  return launch_(engines::agentCommand(m_param, facts, res), withLog);
}

int KxTranscoder::swTranscode(std::string input, std::string output, bool withLog) {
  return launch_(softwareCommand_(input, output), withLog);
}

std::vector<std::string> KxTranscoder::getSWCommand() {
  const std::string input = getSWFfmpegFilenameInput();
  if (input.empty()) return {};
  const engines::EngineCommand command = softwareCommand_(input, m_param.m_outFile);
  return accept_(command) ? command.argv : std::vector<std::string>();
}

engines::EngineCommand KxTranscoder::softwareCommand_(const std::string& input,
                                                      const std::string& output) {
  const std::optional<MediaSvcVarInfo> service = mediaService();
  if (!service) {
    engines::EngineCommand none;
    none.refused = true;
    none.notes.push_back({"swTranscode", "no tool\n"});
    return none;
  }
  engines::EngineFacts facts = gatherFacts_(input, output);
  facts.program = service->ffmpegPath;
  facts.audioEncoders = service->audioEncoders;
  return engines::softwareCommand(m_param, facts);
}

engines::EngineFacts KxTranscoder::gatherFacts_(const std::string& input,
                                                const std::string& output) {
  engines::EngineFacts facts;
  facts.input = input;
  facts.output = output;
  facts.video = m_mediaInfo.getVideoTrack(m_param.m_vid);
  facts.audio = m_mediaInfo.getAudioTrack(m_param.m_aid);
  facts.degree = engines::transcodeDegree(m_param, facts.video);
  facts.audioCodecName = codecName(m_param.m_aCodecId);
  if (m_param.m_isFastStart) facts.fastStartFile = newWorkFile_();
  if (m_param.m_isPipeOut) facts.pipeOutFile = newWorkFile_();
  return facts;
}

std::optional<std::string> KxTranscoder::newWorkFile_() {
  std::string name;
  if (miscGenUniqueFileName(name) != 0) return std::nullopt;
  return m_workFolder + name;
}

bool KxTranscoder::accept_(const engines::EngineCommand& command) {
  engines::logNotes(command.notes);
  if (command.fastStartFile) m_param.m_fastStartFile = *command.fastStartFile;
  if (command.pipeOutFile) m_param.m_pipeOutFile = *command.pipeOutFile;
  return !command.refused;
}

int KxTranscoder::launch_(const engines::EngineCommand& command, bool withLog) {
  if (!accept_(command)) return -1;
  return miscLaunchCmdNoWait(command.argv, withLog ? m_progressLog : "");
}

int KxTranscoder::getTranscodeDegree_() {
  return engines::transcodeDegree(m_param, m_mediaInfo.getVideoTrack(m_param.m_vid));
}

int KxTranscoder::getResizeBasedOnDAR_(int& outW, int& outH, int reqW, int reqH, int tolerance) {
  const engines::OutputSize size = engines::computeOutputSize(
      m_mediaInfo.getVideoTrack(m_param.m_vid), {reqW, reqH, tolerance, m_param.m_noDAR});
  engines::logNotes(size.notes);
  if (!size.known) return 1;
  outW = size.width;
  outH = size.height;
  return 0;
}

bool KxTranscoder::needsStripMetadata() {
  const KxStream video = m_mediaInfo.getVideoTrack(m_param.m_vid);
  return getTranscodeDegree_() != 0 || video.m_rotation != 0 || video.m_isMirrored;
}

int KxTranscoder::workaroundStripMetadata(std::string output) {
  KX_LOG(
      "for bug#128126, do not know why sw ffmpeg can not strip metadataso we remux video again\n");
  return miscLaunchCmdNoWait(engines::remuxCommand(staticFfmpeg(), output), m_progressLog);
}

int KxTranscoder::doSegment() {
  m_segVec.clear();
  if (!canSegment_() || makeSideAudio_() != 0 || cutSource_() != 0) return 1;
  m_segVec = engines::collectSegments(m_workFolder, m_param.m_formatId);
  return m_segVec.empty() ? 1 : 0;
}

bool KxTranscoder::canSegment_() {
  std::vector<engines::EngineNote> notes;
  const bool suits = engines::sourceCanBeCut(m_param, m_mediaInfo.m_duration,
                                             m_mediaInfo.getVideoTrack(m_param.m_vid), notes);
  engines::logNotes(notes);
  if (!suits) return false;
  notes.clear();
  const KxPlatform platform;
  const bool supported =
      engines::platformCanCut(platform.getPlatformName(), platform.getPlatformType(), notes);
  engines::logNotes(notes);
  return supported;
}

int KxTranscoder::makeSideAudio_() {
  return runSegmentStep_(genFfmpegReAudioParams_(), "genFfmpegReAudioParams_() fail\n",
                         "launch reAudio cmd fail\n");
}

int KxTranscoder::cutSource_() {
  return runSegmentStep_(genFfmpegSegmentParams_(), "genFfmpegSegmentParams_() fail\n",
                         "launch segment cmd fail\n");
}

int KxTranscoder::runSegmentStep_(const std::vector<std::string>& command, const char* noCommand,
                                  const char* noChild) {
  const auto refuse = [](const char* text) {
    KX_LOG_AS("doSegment", "%s", text);
    return 1;
  };
  if (command.empty()) return refuse(noCommand);
  const int pid = miscLaunchCmdNoWait(command, m_progressLog);
  if (pid == -1) return refuse(noChild);
  // The cut fails with the same text as the audio.
  return waitForChild_(pid) == 0 ? 0 : refuse("reAudio fail\n");
}

std::vector<std::string> KxTranscoder::genFfmpegReAudioParams_() {
  if (!exists(m_workFolder)) {
    KX_LOG("misc folder %s invalid or do not exist\n", m_workFolder.c_str());
    return {};
  }
  return engines::sideAudioCommand(staticFfmpeg(), getSWFfmpegFilenameInput(), m_param,
                                   getSideAudioPath());
}

std::vector<std::string> KxTranscoder::genFfmpegSegmentParams_() {
  const std::string input = getSWFfmpegFilenameInput();
  if (!exists(input)) {
    KX_LOG("src %s is invalid or do not exist\n", input.c_str());
    return {};
  }
  if (!exists(m_workFolder)) {
    KX_LOG("misc folder %s invalid or do not exist\n", m_workFolder.c_str());
    return {};
  }
  return engines::cutCommand(staticFfmpeg(), input, m_param.m_formatId, m_workFolder);
}

int KxTranscoder::doMerge() {
  if (m_segVec.empty()) {
    KX_LOG("m_segVec is empty, can not do merge\n");
    return 1;
  }
  const std::string list = m_workFolder + "/merge_list";
  if (!engines::writeMergeList(list, m_segVec)) return 1;
  std::vector<engines::EngineNote> notes;
  const std::vector<std::string> command =
      engines::mergeCommand(staticFfmpeg(), list, getSideAudioPath(), m_param, notes);
  engines::logNotes(notes);
  const int pid = miscLaunchCmdNoWait(command, m_progressLog);
  if (pid == -1) {
    KX_LOG("launch merge segment cmd fail\n");
    return 1;
  }
  if (waitForChild_(pid) == 0) return 0;
  KX_LOG("merge segment fail\n");
  return 1;
}

int KxTranscoder::waitForChild_(int pid) {
  if (m_childWaiter) return m_childWaiter(pid);
  return miscAnalysisRet(ChildProcess::adopt(pid).wait());
}

int KxTranscoder::getProgress() {
  m_progress = engines::readProgress(m_progressLog, m_progress);
  return m_progress;
}
