#include "engines/ProfileSelection.h"

#include <algorithm>
#include <array>

// The keys identify the profiles outside this library; their order is not that of the rows.
const TransConfigEntry gTransConfig[8] = {
    {0x1, "mobile240p", 4, 360, 240, 28, 86018, 64000, 2, 44100, 77},
    {0x100, "mobile360p", 4, 640, 360, 28, 86018, 64000, 2, 44100, 77},
    {0x1000000, "mobile480p", 4, 640, 480, 28, 86018, 64000, 2, 44100, 77},
    {0x10000, "ipad720p", 4, 1280, 720, 28, 86018, 128000, 2, 44100, 100},
    {0x100000000, "mobile1080p", 4, 1920, 1080, 28, 86018, 128000, 2, 44100, 100},
    {0x10000000000, "original", 4, 0, 0, 28, 86018, 128000, 2, 44100, -1},
    {0x100000000000, "video2audio", 9, 0, 0, 0, 86017, 128000, 2, 44100, -1},
    {0, "", 4, 240, 360, 28, 86018, 64000, 2, 44100, -1},
};

const AudioConfigEntry gV2ABGTransConfig[2] = {
    {0x100000000000, "video2audio", 9, 86018, 128000, 2, 44100},
    {0, "", 9, 86018, 128000, 2, 44100},
};

const AudioConfigEntry gMusicBGTransConfig[2] = {
    {0x100000000000, "audio", 9, 86018, 128000, 2, 44100},
    {0, "", 9, 86018, 128000, 2, 44100},
};

const char* const gSupportSubtitle[2] = {".srt", nullptr};

namespace engines {
namespace {

constexpr const char* kFunction = "init";

struct ProfileFile {
  const char* name;
  uint64_t key;
  const char* note;
};

// The 1080p file keeps the source's size on purpose: it names the "original" row.
constexpr std::array<ProfileFile, 6> kProfileFiles{{
    {"mobile240p.xml", 0x1, "set transcode config as 240p\n"},
    {"mobile360p.xml", 0x100, "set transcode config as 360p\n"},
    {"mobile480p.xml", 0x1000000, "set transcode config as 480p\n"},
    {"mobile720p.xml", 0x10000, "set transcode config as 720p\n"},
    {"ipad720p.xml", 0x10000, "set transcode config as 720p\n"},
    {"mobile1080p.xml", 0x10000000000, "set transcode config as 1080p\n"},
}};

int chooseAudioCodec(const TransConfigEntry& row, const KxStream& sourceAudio,
                     bool platformHasAac) {
  if (!sourceAudio.m_isEmpty && sourceAudio.m_codecId == KX_CODEC_AAC) return KX_CODEC_AAC;
  return platformHasAac ? row.aCodecId : static_cast<int>(KX_CODEC_MP3);
}

int refuse(std::vector<EngineNote>& notes, const char* text) {
  notes.push_back({kFunction, text});
  return 1;
}

}  // namespace

const TransConfigEntry* selectProfile(const std::string& profileFile,
                                      std::vector<EngineNote>& notes) {
  const auto* file = std::find_if(kProfileFiles.begin(), kProfileFiles.end(),
                                  [&](const ProfileFile& f) { return profileFile == f.name; });
  if (file == kProfileFiles.end()) return nullptr;
  notes.push_back({kFunction, file->note});
  for (const TransConfigEntry* row = gTransConfig; row->key != 0; ++row)
    if (row->key == file->key) return row;
  return nullptr;
}

void applyProfile(const TransConfigEntry& row, const KxStream& sourceAudio, bool platformHasAac,
                  TranscodeParam& param) {
  param.m_formatId = row.formatId;
  param.m_width = row.width;
  param.m_height = row.height;
  param.m_vCodecId = row.vCodecId;
  param.m_aChannel = row.aChannel;
  param.m_aBitrate = row.aBitrate;
  param.m_aSampleRate = row.aSampleRate;
  if (param.m_aCodecId == 0) param.m_aCodecId = chooseAudioCodec(row, sourceAudio, platformHasAac);
  if (param.m_vProfile == -1) param.m_vProfile = row.vProfile;
}

int checkParameters(TranscodeParam& param, std::vector<EngineNote>& notes) {
  if (param.m_formatId == KX_FORMAT_UNKNOWN) return refuse(notes, "unknow format\n");
  if (param.m_formatId == KX_FORMAT_MP4) {
    param.m_isFastStart = true;
    notes.push_back({kFunction, "set faststart = true for mp4\n"});
  }
  if (param.m_seekTime < 0) return refuse(notes, "seek time error\n");
  if (param.m_vCodecId != KX_CODEC_H264)
    return refuse(notes, "we do not support non-H264 codec for now\n");
  return 0;
}

}  // namespace engines
