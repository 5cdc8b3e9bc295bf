#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/FfmpegArguments.h"

namespace kxtools {

/// How the pictures are encoded.
enum class EncoderKind { Nvenc, Vaapi, V4l2, Rockchip, Software };

struct HardwareEncoder {
  EncoderKind kind = EncoderKind::Software;
  std::string name;    ///< of the encoder: "h264_nvenc"
  std::string device;  ///< render node of a VAAPI encoder, number of an NVIDIA card; may be empty
};

/// What the agent is asked for: its words in a readable form.
struct AgentRequest {
  std::string container;
  std::string input;
  Words readingOptions;  ///< of the encoder, that the input needs
  std::string output;
  std::string pipeOutput;  ///< second output that is read while it grows; may be empty
  std::string startFile;   ///< file whose first number replaces the start; may be empty
  int start = 0;           ///< seconds
  std::string frameRate;   ///< "25/1"; empty keeps the source's
  int quarterTurns = 0;    ///< clockwise
  int width = 0;           ///< 0 keeps the source's
  int height = 0;
  int videoKbit = 0;  ///< 0 leaves it to the encoder
  std::string profile;
  bool highTune = false;
  int videoTrack = 0;
  std::string audioCodec;
  int audioChannels = 0;
  int audioBit = 0;
  int audioTrack = 0;
  std::string subtitle;
  int subtitleTrack = -1;
  int subtitleShift = 0;
  int subtitleSize = 0;
  std::string subtitleColour;
  bool nvidia = false;
  std::string deviceNumber;
};

/// Reads the agent's words, without the program name.
/// @param fault why they were refused
std::optional<AgentRequest> parseAgentWords(const Words& words, std::string& fault);

/// Where encoders are looked for.
struct EncoderSources {
  std::string devices = "/dev";
  /// Name of a software encoder that stands in for the hardware; empty for none.
  std::string standIn;
};

/// The encoder for a request.
/// @param fault why there is none
std::optional<HardwareEncoder> chooseEncoder(const AgentRequest& request,
                                             const EncoderSources& sources, std::string& fault);

/// The arguments of the encoder's front-end, without the program name.
Words encoderWords(const AgentRequest& request, const HardwareEncoder& encoder);

}  // namespace kxtools
