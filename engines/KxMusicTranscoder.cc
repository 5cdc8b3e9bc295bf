#include "KxMusicTranscoder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Misc.h"
#include "engines/DiscSource.h"
#include "engines/HostFacts.h"
#include "engines/MusicCommand.h"
#include "engines/ProgressReader.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxMusicTranscoder";

namespace {

constexpr const char* kTranscodeFolder = ".system/transcode/";
constexpr const char* kProgressLogName = "._progress.log";
constexpr int kFolderMode = 0700;

const char* text(bool value) {
  return value ? "true" : "false";
}

// Also true for a link that points nowhere: the encoder would write through it.
bool isTaken(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

}  // namespace

// Weak, and called like any other function, so that an executable that can count pages
// replaces it.
__attribute__((weak, noinline, visibility("default"))) int kxPdfGetPageNumber(std::string) {
  return 0;
}

MusicTranscodeParam::MusicTranscodeParam()
    : m_formatId(0), m_totalDuration(0), m_aCodecId(KX_CODEC_MP3), m_aid(0), m_aChannel(0),
      m_aSampleRate(0), m_aBitrate(0), m_aIgnore(false), m_aCopy(false) {}

void MusicTranscodeParam::dump() {
  KX_LOG("dump KxMusicTranscodeParam options\n");
  KX_LOG("m_inFile=%s, m_outFile=%s\n", m_inFile.c_str(), m_outFile.c_str());
  KX_LOG("m_formatId=%d, m_totalDuration=%d\n", m_formatId, m_totalDuration);
  KX_LOG("m_ip=%s, m_usrname=%s, m_tag=%s\n", m_ip.c_str(), m_usrname.c_str(), m_tag.c_str());
  KX_LOG("m_aCodecId=%d, m_aid=%d, m_aChannel=%d, m_aSampleRate=%d, m_aBitrate=%d, m_aIgnore=%s, "
         "m_aCopy=%s\n",
         m_aCodecId, m_aid, m_aChannel, m_aSampleRate, m_aBitrate, text(m_aIgnore), text(m_aCopy));
  for (const std::string& argument : m_extraCmds) KX_LOG("unknow cmd: %s\n", argument.c_str());
}

KxMusicTranscoder::KxMusicTranscoder()
    : m_source(std::make_unique<engines::DiscSource>()), m_progress(0) {}

KxMusicTranscoder::~KxMusicTranscoder() {
  if (!m_progressLog.empty()) unlink(m_progressLog.c_str());
}

int KxMusicTranscoder::init(MusicTranscodeParam& param) {
  m_param = param;
  if (openSource_() != 0 || placeOutput_() != 0) return 1;
  return checkOutput_();
}

int KxMusicTranscoder::openSource_() {
  const std::string& source = m_param.m_inFile;
  if (!engines::exists(source)) {
    KX_LOG_AS("init", "m_inFile %s is invalid\n", source.c_str());
    return 1;
  }
  if (m_source->attach(source) != 0) return 1;
  if (m_source->probe(m_mediaInfo) == 0) return 0;
  KX_LOG_AS("init", "mediainfo init fail\n");
  return 1;
}

int KxMusicTranscoder::placeOutput_() {
  std::string disk;
  if (miscGetHDDPath(disk) != 0) {
    KX_LOG_AS("init", "can not get hdd path\n");
    return 1;
  }
  std::string name;
  if (miscGenUniqueFileName(name) != 0) {
    KX_LOG_AS("init", "generate tmp name fail\n");
    return 1;
  }
  const std::string folder = convertFolderPath(disk) + kTranscodeFolder;
  if (!engines::exists(folder) && mymkdir(folder.c_str(), kFolderMode) != 0) {
    KX_LOG_AS("init", "mymkdir %s fail\n", folder.c_str());
    return 1;
  }
  m_progressLog = folder + name + kProgressLogName;

  const std::string& wanted = m_param.m_outFile;
  const bool isPath = wanted.find('/') != std::string::npos;
  m_outputPath = isPath ? wanted : folder + wanted;
  if (!wanted.empty() && isTaken(m_outputPath)) {
    KX_LOG_AS("init", "name %s is already exist, init fail", wanted.c_str());
    return 1;
  }
  return 0;
}

int KxMusicTranscoder::checkOutput_() const {
  if (m_param.m_formatId == KX_FORMAT_UNKNOWN) {
    KX_LOG_AS("init", "unknow format\n");
    return 1;
  }
  if (m_param.m_outFile.empty() || m_param.m_outFile.ends_with('/')) {
    KX_LOG_AS("init", "output parameter error\n");
    return 1;
  }
  return 0;
}

int KxMusicTranscoder::transcode(KxResource2& res, bool withLog) {
  if (res.isEmpty) {
    KX_LOG("resource is empty\n");
    return -1;
  }
  const std::string input = m_source->encoderInput();
  switch (res.resType) {
  case RES2_SW_CPU:
    return swTranscode(input, m_outputPath, withLog);
  case RES2_GPU_INTERNAL:
  case RES2_GPU_EXTERNAL:
  case RES2_ARM_RTK:
  case RES2_ARM_RK:
    return hwTranscode(input, m_outputPath, withLog);
  default:
    KX_LOG("res type=%d, id=%s, devName=%s, we do not transcode music by this resource \n",
           res.resType, res.id.c_str(), res.devName.c_str());
    return -1;
  }
}

int KxMusicTranscoder::swTranscode(std::string input, std::string output, bool withLog) {
  return launch_(__func__, input, output, withLog);
}

int KxMusicTranscoder::hwTranscode(std::string input, std::string output, bool withLog) {
  return launch_(__func__, input, output, withLog);
}

int KxMusicTranscoder::launch_(const char* function, const std::string& input,
                               const std::string& output, bool withLog) {
  const auto service = engines::mediaService();
  if (!service) {
    KX_LOG_AS(function, "no tool\n");
    return -1;
  }
  engines::EngineFacts facts;
  facts.program = service->ffmpegPath;
  facts.audioEncoders = service->audioEncoders;
  facts.input = input;
  facts.output = output;
  facts.audio = m_mediaInfo.getAudioTrack(std::max(m_param.m_aid, 0));
  facts.audioCodecName = engines::codecName(m_param.m_aCodecId);
  const engines::EngineCommand command = engines::musicCommand(m_param, facts, function);
  for (const engines::EngineNote& note : command.notes)
    KX_LOG_AS(note.function, "%s", note.text.c_str());
  if (command.refused) return -1;
  return miscLaunchCmdNoWait(command.argv, withLog ? m_progressLog : "");
}

int KxMusicTranscoder::getProgress() {
  m_progress = engines::readProgress(m_progressLog, m_progress);
  return m_progress;
}
