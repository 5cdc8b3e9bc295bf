#include "engines/EngineCommand.h"

#include <algorithm>
#include <array>

namespace engines {
namespace {

// "mkv" is what the service has always passed; its ffmpeg takes it for matroska.
constexpr std::array<ContainerName, 5> kContainers{{
    {KX_FORMAT_AVI, "avi", "avi"},
    {KX_FORMAT_MP4, "mp4", "mp4"},
    {KX_FORMAT_MPEGTS, "ts", "mpegts"},
    {KX_FORMAT_MATROSKA, "mkv", "mkv"},
    {KX_FORMAT_FLV, "flv", "flv"},
}};

}  // namespace

const ContainerName* findContainer(int formatId) {
  const auto* found =
      std::find_if(kContainers.begin(), kContainers.end(),
                   [&](const ContainerName& name) { return name.formatId == formatId; });
  return found == kContainers.end() ? nullptr : found;
}

int transcodeDegree(const TranscodeParam& param, const KxStream& video) {
  switch (param.m_rotate) {
  case 0:
  case 90:
  case 180:
  case 270:
    return param.m_rotate;
  default:
    return video.m_rotation;
  }
}

bool audioSettingsAsked(const TranscodeParam& param) {
  return param.m_aChannel > 0 || param.m_aSampleRate > 0 || param.m_aBitrate > 0;
}

bool offersAac(const EngineFacts& facts) {
  return std::find(facts.audioEncoders.begin(), facts.audioEncoders.end(), "aac") !=
         facts.audioEncoders.end();
}

void CommandWriter::add(std::initializer_list<std::string> arguments) {
  command.argv.insert(command.argv.end(), arguments);
}

void CommandWriter::addPositive(const char* option, int value) {
  if (value > 0) add({option, std::to_string(value)});
}

void CommandWriter::addText(const char* option, const std::string& value) {
  if (!value.empty()) add({option, value});
}

void CommandWriter::note(const std::string& text) {
  command.notes.push_back({m_function, text});
}

bool CommandWriter::refuse(const std::string& text) {
  note(text);
  return false;
}

bool CommandWriter::choosePipeOutFile(bool isPipeOut, const std::optional<std::string>& fresh) {
  if (!isPipeOut) {
    command.pipeOutFile = "";
    return true;
  }
  if (!fresh) return refuse("miscGenUniqueFileName() fail\n");
  command.pipeOutFile = fresh;
  note("generate pipeout file: " + *fresh + "\n");
  return true;
}

}  // namespace engines
