#include "engines/MusicCommand.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace engines {
namespace {

struct AudioContainer {
  int codecId;
  const char* name;
};

// Of codecs that have no container of their own name.
constexpr std::array<AudioContainer, 13> kContainers{{{KX_CODEC_MP3, "mp3"},
                                                      {KX_CODEC_AAC, "adts"},
                                                      {AV_CODEC_ID_VORBIS, "ogg"},
                                                      {AV_CODEC_ID_SPEEX, "ogg"},
                                                      {AV_CODEC_ID_ALAC, "ipod"},
                                                      {AV_CODEC_ID_WMAV1, "asf"},
                                                      {AV_CODEC_ID_WMAV2, "asf"},
                                                      {AV_CODEC_ID_WAVPACK, "wv"},
                                                      {AV_CODEC_ID_PCM_U8, "wav"},
                                                      {AV_CODEC_ID_PCM_S16LE, "wav"},
                                                      {AV_CODEC_ID_PCM_S24LE, "wav"},
                                                      {AV_CODEC_ID_PCM_S32LE, "wav"},
                                                      {AV_CODEC_ID_PCM_F32LE, "wav"}}};

// Container of an audio-only file.
std::optional<std::string> containerName(int codecId, const EngineFacts& facts) {
  const auto* found = std::ranges::find(kContainers, codecId, &AudioContainer::codecId);
  if (found != kContainers.end()) return found->name;
  return facts.audioCodecName;
}

class MusicCommandBuilder {
 public:
  MusicCommandBuilder(const MusicTranscodeParam& param, const EngineFacts& facts,
                      const char* function)
      : m_param(param), m_facts(facts), m_out(function) {}

  EngineCommand build() {
    source();
    m_out.command.refused = !container() || !audio();
    if (!m_out.command.refused) extraAndOutput();
    return std::move(m_out.command);
  }

 private:
  void source() {
    m_out.add({m_facts.program, "-y", "-i", m_facts.input});
    m_out.addPositive("-t", m_param.m_totalDuration);
    m_out.add({"-strict", "-2"});
  }

  bool container() {
    if (m_param.m_formatId != KX_FORMAT_AUDIO) return m_out.refuse("unsupport format\n");
    const auto name = containerName(m_param.m_aCodecId, m_facts);
    if (!name) return refuseCodec();
    m_out.add({"-f", *name});
    return true;
  }

  bool audio() {
    // The question mark leaves a source without that stream to the encoder, which takes the
    // stream that it thinks best: who means none but that one looks first.
    if (m_param.m_aid >= 0) m_out.add({"-map", "0:a:" + std::to_string(m_param.m_aid) + "?"});
    m_out.addPositive("-ac", m_param.m_aChannel);
    m_out.addPositive("-ar", m_param.m_aSampleRate);
    if (couldBeCopied()) m_out.note("for now, force transcode audio\n");
    m_out.addPositive("-b:a", m_param.m_aBitrate);
    return encoder();
  }

  bool couldBeCopied() const {
    const bool sameCodec =
        !m_facts.audio.m_isEmpty && m_facts.audio.m_codecId == m_param.m_aCodecId;
    return sameCodec && m_param.m_aChannel <= 0 && m_param.m_aSampleRate <= 0 &&
           m_param.m_aBitrate <= 0;
  }

  bool encoder() {
    if (m_param.m_aCodecId == KX_CODEC_MP3) {
      m_out.note("set default codec as mp3\n");
      m_out.add({"-c:a", "mp3"});
      return true;
    }
    if (m_param.m_aCodecId == KX_CODEC_AAC && offersAac(m_facts)) {
      m_out.add({"-c:a", "aac"});
      return true;
    }
    if (!m_facts.audioCodecName) return refuseCodec();
    m_out.add({"-c:a", *m_facts.audioCodecName});
    return true;
  }

  bool refuseCodec() {
    return m_out.refuse("get audio codec name fail:" + std::to_string(m_param.m_aCodecId) + "\n");
  }

  void extraAndOutput() {
    for (const std::string& argument : m_param.m_extraCmds) {
      m_out.note("add unknow cmd " + argument + " to sw ffmpeg transcode ...\n");
      m_out.add({argument});
    }
    m_out.add({m_facts.output});
  }

  const MusicTranscodeParam& m_param;
  const EngineFacts& m_facts;
  CommandWriter m_out;
};

}  // namespace

EngineCommand musicCommand(const MusicTranscodeParam& param, const EngineFacts& facts,
                           const char* function) {
  return MusicCommandBuilder(param, facts, function).build();
}

}  // namespace engines
