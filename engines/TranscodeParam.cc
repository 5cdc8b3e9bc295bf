#include "KxTranscoder.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace {
const char* text(bool value) {
  return value ? "true" : "false";
}
}  // namespace

TranscodeParam::TranscodeParam()
    : m_isPipeIn(false), m_isPipeOut(false), m_formatId(0), m_totalDuration(0), m_seekTime(0),
      m_isFastStart(false), m_estResource(false), m_estTranscodeType(false), m_myfile(false),
      m_mode(0), m_vCodecId(KX_CODEC_H264), m_vid(0), m_vProfile(-1), m_vLevel(0.0), m_vBitrate(0),
      m_vFramerate(0), m_vIgnore(false), m_vCopy(false), m_width(0), m_height(0), m_rotate(-1),
      m_noDAR(false), m_aCodecId(0), m_aid(0), m_aChannel(0), m_aSampleRate(0), m_aBitrate(0),
      m_aIgnore(false), m_aCopy(false), m_sid(-1), m_subSize(0), m_subSeek(0) {}

TranscodeParam::~TranscodeParam() = default;

void TranscodeParam::dump() {
  KX_LOG("dump transcodeParam options\n");
  KX_LOG("m_inFile=%s, m_outFile=%s, m_isPipeIn=%d, m_isPipeOut=%d, m_pipeOutFile=%s\n",
         m_inFile.c_str(), m_outFile.c_str(), m_isPipeIn, m_isPipeOut, m_pipeOutFile.c_str());
  KX_LOG("m_formatId=%d, m_totalDuration=%d, m_seekTime=%d, m_seekTimeFile=%s, m_isFastStart=%d, "
         "m_fastStartFile=%s\n",
         m_formatId, m_totalDuration, m_seekTime, m_seekTimeFile.c_str(), m_isFastStart,
         m_fastStartFile.c_str());
  KX_LOG("m_profile=%s, m_estResource=%s, m_estTranscodeType=%s, m_myfile=%s, m_mode=%d\n",
         m_profile.c_str(), text(m_estResource), text(m_estTranscodeType), text(m_myfile), m_mode);
  KX_LOG("m_ip=%s, m_usrname=%s, m_tag=%s\n", m_ip.c_str(), m_usrname.c_str(), m_tag.c_str());
  KX_LOG("m_vCodecId=%d, m_vid=%d, m_vProfile=%d, m_vLevel=%f, m_vBitrate=%d, m_vFramerate=%d, "
         "m_vIgnore=%s\n",
         m_vCodecId, m_vid, m_vProfile, m_vLevel, m_vBitrate, m_vFramerate, text(m_vIgnore));
  KX_LOG("m_vCopy=%s, m_width=%d, m_height=%d, m_rotate=%d, m_noDAR=%s\n", text(m_vCopy), m_width,
         m_height, m_rotate, text(m_noDAR));
  KX_LOG("m_aCodecId=%d, m_aid=%d, m_aChannel=%d, m_aSampleRate=%d, m_aBitrate=%d, m_aIgnore=%s, "
         "m_aCopy=%s\n",
         m_aCodecId, m_aid, m_aChannel, m_aSampleRate, m_aBitrate, text(m_aIgnore), text(m_aCopy));
  KX_LOG("m_sid=%d, m_subtitle=%s, m_subColor=%s, m_subSize=%d, m_subSeek=%d\n", m_sid,
         m_subtitle.c_str(), m_subColor.c_str(), m_subSize, m_subSeek);
  KX_LOG("m_hlsTid=%s, m_hlsPath=%s\n", m_hlsTid.c_str(), m_hlsPath.c_str());
  for (const std::string& argument : m_extraCmds) KX_LOG("unknow cmd: %s\n", argument.c_str());
}
