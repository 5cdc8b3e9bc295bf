#include "engines/SoftwareCommand.h"

#include <cstdio>

#include "engines/FilterChain.h"
#include "engines/OutputSize.h"

namespace engines {
namespace {

std::string levelText(double level) {
  char text[64];
  snprintf(text, sizeof text, "%.1f", level);
  return text;
}

class SoftwareCommandBuilder {
 public:
  SoftwareCommandBuilder(const TranscodeParam& param, const EngineFacts& facts)
      : m_param(param), m_facts(facts) {}

  EngineCommand build() {
    const bool complete =
        source() && picture() && container() && video() && audio() && extraAndOutput();
    m_out.command.refused = !complete;
    return std::move(m_out.command);
  }

 private:
  bool source() {
    m_out.add({m_facts.program, "-y"});
    if (m_param.m_seekTime > 0) m_out.note(">>> maybe we should recalculate seek time here\n");
    m_out.addPositive("-ss", m_param.m_seekTime);
    m_out.add({"-noautorotate", "-i", m_facts.input});
    m_out.addPositive("-t", m_param.m_totalDuration);
    m_out.addPositive("-fix_duration", m_param.m_totalDuration);
    return true;
  }

  bool picture() {
    OutputSize size = computeOutputSize(
        m_facts.video, {m_param.m_width, m_param.m_height, m_param.m_height / 10, m_param.m_noDAR});
    for (EngineNote& note : size.notes) m_out.command.notes.push_back(std::move(note));
    if (!size.known) return m_out.refuse("getResizeBasedOnDAR_() fail\n");
    m_out.add({"-vf", videoFilter({size.width, size.height}, m_facts.degree)});
    if (m_facts.degree > 0) m_out.add({"-metadata:s:v", "rotate=0"});
    m_out.add({"-strict", "-2", "-preset", "superfast"});
    return true;
  }

  bool container() {
    const ContainerName* name = findContainer(m_param.m_formatId);
    if (name == nullptr) return m_out.refuse("unknow format\n");
    m_out.add({"-f", name->ffmpeg});
    if (m_param.m_formatId == KX_FORMAT_MPEGTS && m_param.m_vCodecId == KX_CODEC_H264)
      m_out.add({"-bsf:v", "h264_mp4toannexb"});
    return true;
  }

  bool video() {
    if (m_param.m_vid >= 0) m_out.add({"-map", "0:v:" + std::to_string(m_param.m_vid)});
    frameRate();
    m_out.addPositive("-b:v", m_param.m_vBitrate);
    if (m_param.m_vLevel > 0.0) m_out.add({"-level", levelText(m_param.m_vLevel)});
    videoProfile();
    noteForcedEncode();
    if (m_param.m_vCodecId != KX_CODEC_H264) m_out.note("set default codec as h264\n");
    m_out.add({"-c:v", "h264"});
    return true;
  }

  void frameRate() {
    const bool sourceKnown = m_facts.video.m_frame_num > 0 && m_facts.video.m_frame_den > 0;
    if (m_param.m_vFramerate > 0 && sourceKnown) {
      m_out.add({"-r", std::to_string(m_param.m_vFramerate)});
    } else {
      m_out.note("can not get video framerate, ignore framerate parameter\n");
    }
  }

  void videoProfile() {
    switch (m_param.m_vProfile) {
    case 77:
      return m_out.add({"-profile:v", "main"});
    case 100:
      return m_out.add({"-profile:v", "high"});
    case 66:
      return m_out.add({"-profile:v", "baseline"});
    default:
      return m_out.note("unknow video profile\n");
    }
  }

  void noteForcedEncode() {
    const KxStream& source = m_facts.video;
    if (m_param.m_vProfile == 77 && source.m_codecId == KX_CODEC_H264 && source.m_profile != 77) {
      m_out.note("source is h264 profile " + std::to_string(source.m_profile) +
                 ", main profile is asked for, force transcode video\n");
    }
    if (source.m_codecId == m_param.m_vCodecId) {
      m_out.note("source video codec is already " + std::to_string(source.m_codecId) +
                 ", force transcode video\n");
    }
  }

  bool audio() {
    if (m_param.m_aid >= 0) m_out.add({"-map", "0:a:" + std::to_string(m_param.m_aid)});
    m_out.addPositive("-ac", m_param.m_aChannel);
    m_out.addPositive("-ar", m_param.m_aSampleRate);
    m_out.addPositive("-b:a", m_param.m_aBitrate);
    return audioCodec();
  }

  bool audioCodec() {
    const bool sameCodec =
        !m_facts.audio.m_isEmpty && m_facts.audio.m_codecId == m_param.m_aCodecId;
    if (sameCodec && !audioSettingsAsked(m_param)) {
      m_out.note("for now, force transcode audio\n");
      if (m_param.m_aCodecId == KX_CODEC_AAC) {
        m_out.add({"-c:a", "copy"});
        return true;
      }
    }
    if (m_param.m_aCodecId == KX_CODEC_AAC && offersAac(m_facts)) {
      m_out.add({"-c:a", "aac"});
      return true;
    }
    if (!m_facts.audioCodecName)
      return m_out.refuse("get audio codec name fail:" + std::to_string(m_param.m_aCodecId));
    m_out.add({"-c:a", *m_facts.audioCodecName});
    return true;
  }

  bool extraAndOutput() {
    for (const std::string& argument : m_param.m_extraCmds) {
      m_out.note("add unknow cmd " + argument + " to sw ffmpeg transcode ...\n");
      m_out.add({argument});
    }
    if (!m_facts.output.empty()) m_out.add({m_facts.output});
    if (!m_param.m_isPipeOut) m_out.note("clear pipe out file\n");
    if (!m_out.choosePipeOutFile(m_param.m_isPipeOut, m_facts.pipeOutFile)) return false;
    // ffmpeg takes bare paths as outputs, and a second one would be a second encode.
    if (m_param.m_isPipeOut && m_facts.output.empty()) m_out.add({*m_out.command.pipeOutFile});
    return true;
  }

  const TranscodeParam& m_param;
  const EngineFacts& m_facts;
  CommandWriter m_out{"swTranscode"};
};

}  // namespace

EngineCommand softwareCommand(const TranscodeParam& param, const EngineFacts& facts) {
  return SoftwareCommandBuilder(param, facts).build();
}

std::vector<std::string> remuxCommand(const std::string& ffmpeg, const std::string& output) {
  return {ffmpeg,
          "-y",
          "-i",
          output,
          "-map",
          "0",
          "-c",
          "copy",
          "-map_metadata",
          "-1",
          "-metadata:s:v",
          "rotate=0",
          "-movflags",
          "+faststart",
          "-f",
          "mp4",
          output + ".remux.mp4"};
}

}  // namespace engines
