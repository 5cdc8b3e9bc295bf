#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "KxMediainfo.h"
#include "KxTranscoder.h"
#include "engines/EngineNote.h"

namespace engines {

// What a command needs to know besides the job's parameters.
struct EngineFacts {
  std::string program;
  std::vector<std::string> audioEncoders;  // what the media service offers
  std::string input;
  std::string output;
  KxStream video;                             // the chosen video stream; empty when there is none
  KxStream audio;                             // the chosen audio stream; empty when there is none
  int degree = 0;                             // clockwise rotation to compensate
  std::optional<std::string> audioCodecName;  // of the wanted audio codec; nothing if unknown
  std::optional<std::string> fastStartFile;   // fresh path; nothing if none could be made
  std::optional<std::string> pipeOutFile;     // fresh path; nothing if none could be made
};

// A command line, or the reason why there is none. Notes are in the order of the log.
struct EngineCommand {
  bool refused = false;
  std::vector<std::string> argv;
  std::vector<EngineNote> notes;
  // New values of the parameters of these names; nothing leaves them as they were.
  std::optional<std::string> fastStartFile;
  std::optional<std::string> pipeOutFile;
};

// Names of a container for the two engines.
struct ContainerName {
  int formatId;
  const char* agent;
  const char* ffmpeg;
};
// Null for a container that the engines do not write.
const ContainerName* findContainer(int formatId);

// Rotation to compensate: what the job says, else the source's own.
int transcodeDegree(const TranscodeParam& param, const KxStream& video);

// True when one of the three audio settings is asked for.
bool audioSettingsAsked(const TranscodeParam& param);
bool offersAac(const EngineFacts& facts);

// Collects a command line under one function name.
class CommandWriter {
 public:
  explicit CommandWriter(const char* function) : m_function(function) {}

  void add(std::initializer_list<std::string> arguments);
  // Adds the option when the value is positive.
  void addPositive(const char* option, int value);
  void addText(const char* option, const std::string& value);
  void note(const std::string& text);
  // Notes why there is no command; false, so that a step can return it.
  bool refuse(const std::string& text);
  // The file that receives piped output, or an empty one; false when it has no name.
  bool choosePipeOutFile(bool isPipeOut, const std::optional<std::string>& fresh);

  EngineCommand command;

 private:
  const char* m_function;
};

}  // namespace engines
