#include "engines/AgentCommand.h"

#include "engines/OutputSize.h"

namespace engines {
namespace {

class AgentCommandBuilder {
 public:
  AgentCommandBuilder(const TranscodeParam& param, const EngineFacts& facts,
                      const KxResource2& resource)
      : m_param(param), m_facts(facts), m_resource(resource) {}

  EngineCommand build() {
    m_out.add({m_facts.program});
    const bool complete = container() && videoAllowed() && picture() && videoCoding() &&
                          audioAllowed() && audioCodec() && audioAndSubtitle() && sideFiles() &&
                          endpoints();
    m_out.command.refused = !complete;
    return std::move(m_out.command);
  }

 private:
  bool container() {
    const ContainerName* name = findContainer(m_param.m_formatId);
    if (name == nullptr) return m_out.refuse("unknow format\n");
    m_out.add({"-m", name->agent});
    m_out.addPositive("-seek", m_param.m_seekTime);
    m_out.addText("-sf", m_param.m_seekTimeFile);
    return true;
  }

  bool videoAllowed() {
    if (m_param.m_vIgnore) return m_out.refuse("we do not support video ignore for now\n");
    if (m_param.m_vCopy) return m_out.refuse("we do not support video copy for now\n");
    if (m_param.m_vCodecId != KX_CODEC_H264)
      return m_out.refuse("we do not support non-h264 codec for now\n");
    return true;
  }

  bool picture() {
    if (m_param.m_vFramerate > 0) m_out.add({"-vf", std::to_string(m_param.m_vFramerate) + "/1"});
    const int degree = m_facts.degree;
    if (degree == 90 || degree == 180 || degree == 270)
      m_out.add({"-vr", std::to_string(degree / 90)});

    OutputSize size = computeOutputSize(
        m_facts.video, {m_param.m_width, m_param.m_height, m_param.m_height / 10, m_param.m_noDAR});
    for (EngineNote& note : size.notes) m_out.command.notes.push_back(std::move(note));
    if (!size.known) return m_out.refuse("getResizeBasedOnDAR_() fail");
    if (size.width >= 1 && size.height >= 1) {
      m_out.add(
          {"-s", "width=" + std::to_string(size.width) + ",height=" + std::to_string(size.height)});
    }
    return true;
  }

  bool videoCoding() {
    // The agent takes kbit/s for video, but bit/s for audio.
    if (m_param.m_vBitrate > 0) m_out.add({"-vb", std::to_string(m_param.m_vBitrate / 1000)});
    if (m_param.m_vLevel > 0.0) m_out.note("we do not support video level for now\n");
    if (m_param.m_vProfile == 100 && m_param.m_mode == 3) {
      m_out.note("work around for PS4, set gst h264 encode with tune=1\n");
      m_out.add({"-ve", "h264_high_tune_1"});
    }
    videoProfile();
    m_out.addPositive("-vid", m_param.m_vid);
    return true;
  }

  void videoProfile() {
    switch (m_param.m_vProfile) {
    case 100:
      return m_out.add({"-profile", "high"});
    case 66:
      return m_out.add({"-profile", "baseline"});
    case 77:
      return m_out.add({"-profile", "main"});
    default:
      return m_out.note("unkonw video profile\n");
    }
  }

  bool audioAllowed() {
    if (m_param.m_aIgnore) return m_out.refuse("we do not support audio ignore for now\n");
    if (m_param.m_aCopy) return m_out.refuse("we do not support audio copy for now\n");
    return true;
  }

  bool audioCodec() {
    if (m_param.m_aCodecId == KX_CODEC_AAC) {
      const bool sourceIsAac = !m_facts.audio.m_isEmpty && m_facts.audio.m_codecId == KX_CODEC_AAC;
      if (!offersAac(m_facts) && !sourceIsAac) return false;
      m_out.add({"-ca", offersAac(m_facts) ? "aac" : "copy"});
      return true;
    }
    if (!m_facts.audioCodecName)
      return m_out.refuse("get audio codec name fail:" + std::to_string(m_param.m_aCodecId));
    m_out.add({"-ca", *m_facts.audioCodecName});
    return true;
  }

  bool audioAndSubtitle() {
    m_out.addPositive("-ac", m_param.m_aChannel);
    m_out.addPositive("-ab", m_param.m_aBitrate);
    m_out.addPositive("-aid", m_param.m_aid);
    m_out.addText("-t", m_param.m_subtitle);
    if (m_param.m_sid >= 0) m_out.add({"-tid", std::to_string(m_param.m_sid)});
    if (m_param.m_subSeek != 0) m_out.add({"-tseek", std::to_string(m_param.m_subSeek)});
    m_out.addPositive("-tsize", m_param.m_subSize);
    m_out.addText("-color", m_param.m_subColor);
    if (m_param.m_mode != 0) m_out.add({"-mode", std::to_string(m_param.m_mode)});
    return true;
  }

  bool sideFiles() {
    if (m_param.m_isFastStart) {
      if (!m_facts.fastStartFile) return m_out.refuse("miscGenUniqueFileName() fail\n");
      m_out.add({"-fs", *m_facts.fastStartFile});
    }
    m_out.command.fastStartFile = m_param.m_isFastStart ? *m_facts.fastStartFile : "";
    if (!m_out.choosePipeOutFile(m_param.m_isPipeOut, m_facts.pipeOutFile)) return false;
    m_out.addText("-o", *m_out.command.pipeOutFile);
    return true;
  }

  bool endpoints() {
    m_out.addText("-i", m_facts.input);
    m_out.addText("-o", m_facts.output);
    if (m_resource.resType == RES2_GPU_EXTERNAL) {
      m_out.add({"-type", "nvidia"});
      m_out.addText("-devno", m_resource.devNumber);
    }
    return true;
  }

  const TranscodeParam& m_param;
  const EngineFacts& m_facts;
  const KxResource2& m_resource;
  CommandWriter m_out{"hwTranscode"};
};

}  // namespace

EngineCommand agentCommand(const TranscodeParam& param, const EngineFacts& facts,
                           const KxResource2& resource) {
  return AgentCommandBuilder(param, facts, resource).build();
}

}  // namespace engines
