#include "tools/AgentArguments.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string_view>

#include "engines/SubtitleFilter.h"
#include "frame/UniqueFd.h"

namespace kxtools {
namespace {

namespace fs = std::filesystem;

const std::map<std::string, std::string, std::less<>> kContainers = {
    {"avi", "avi"}, {"mp4", "mp4"}, {"ts", "mpegts"}, {"mkv", "matroska"}, {"flv", "flv"}};

bool parseNumber(const std::string& text, int& value) {
  const char* end = text.data() + text.size();
  const auto [stop, failed] = std::from_chars(text.data(), end, value);
  return failed == std::errc() && stop == end;
}

bool parseAtLeast(int least, const std::string& text, int& value) {
  return parseNumber(text, value) && value >= least;
}

bool isPath(const std::string& text) {
  return !text.empty() && text.front() == '/';
}

bool isWord(const std::string& text) {
  const auto plain = [](unsigned char c) { return isalnum(c) != 0 || c == '_'; };
  return !text.empty() && std::all_of(text.begin(), text.end(), plain);
}

bool isRate(const std::string& text) {
  const size_t slash = text.find('/');
  int rate = 0;
  return slash != std::string::npos && parseAtLeast(1, text.substr(0, slash), rate) &&
         parseAtLeast(1, text.substr(slash + 1), rate);
}

bool parseSize(const std::string& text, AgentRequest& request) {
  int end = 0;
  const int found =
      sscanf(text.c_str(), "width=%6d,height=%6d%n", &request.width, &request.height, &end);
  return found == 2 && static_cast<size_t>(end) == text.size() && request.width > 0 &&
         request.height > 0;
}

// The result is the last output; one before it is read while it grows.
bool takeOutput(const std::string& path, AgentRequest& request) {
  if (!isPath(path) || !request.pipeOutput.empty()) return false;
  request.pipeOutput = std::exchange(request.output, path);
  return true;
}

using Reader = std::function<bool(AgentRequest&, const std::string&)>;

Reader number(int least, int AgentRequest::*field) {
  return [=](AgentRequest& request, const std::string& value) {
    return parseAtLeast(least, value, request.*field);
  };
}

Reader text(bool (*valid)(const std::string&), std::string AgentRequest::*field) {
  return [=](AgentRequest& request, const std::string& value) {
    request.*field = value;
    return valid(value);
  };
}

bool anyText(const std::string&) {
  return true;
}

bool takeContainer(AgentRequest& request, const std::string& value) {
  const auto known = kContainers.find(value);
  if (known == kContainers.end()) return false;
  request.container = known->second;
  return true;
}

constexpr int kAnyNumber = -1000000000;

const std::map<std::string, Reader, std::less<>>& readers() {
  using Request = AgentRequest;
  static const std::map<std::string, Reader, std::less<>> kReaders = {
      {"-m", takeContainer},
      {"-seek", number(0, &Request::start)},
      {"-sf", text(isPath, &Request::startFile)},
      {"-vf", text(isRate, &Request::frameRate)},
      {"-vr",
       [](Request& request, const std::string& value) {
         return parseAtLeast(1, value, request.quarterTurns) && request.quarterTurns <= 3;
       }},
      {"-s", [](Request& request, const std::string& value) { return parseSize(value, request); }},
      {"-vb", number(1, &Request::videoKbit)},
      {"-ve",
       [](Request& request, const std::string& value) {
         return request.highTune = value == "h264_high_tune_1";
       }},
      {"-profile", text(isWord, &Request::profile)},
      {"-vid", number(0, &Request::videoTrack)},
      {"-ca", text(isWord, &Request::audioCodec)},
      {"-ac", number(1, &Request::audioChannels)},
      {"-ab", number(1, &Request::audioBit)},
      {"-aid", number(0, &Request::audioTrack)},
      {"-t", text(isPath, &Request::subtitle)},
      {"-tid", number(0, &Request::subtitleTrack)},
      {"-tseek", number(kAnyNumber, &Request::subtitleShift)},
      {"-tsize", number(1, &Request::subtitleSize)},
      {"-color", text(anyText, &Request::subtitleColour)},
      // How the request came about makes no difference here.
      {"-mode", [](Request&, const std::string&) { return true; }},
      // MP4 always gets its index in front, and the encoder needs no file of its own for that.
      {"-fs", [](Request&, const std::string& value) { return isPath(value); }},
      {"-i", text(isPath, &Request::input)},
      {"-o", [](Request& request, const std::string& value) { return takeOutput(value, request); }},
      {"-type", [](Request& request,
                   const std::string& value) { return request.nvidia = value == "nvidia"; }},
      {"-devno", text(isWord, &Request::deviceNumber)},
  };
  return kReaders;
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// The first entry of a folder whose name starts so, in the order of names.
std::vector<std::string> entries(const std::string& folder, std::string_view start) {
  std::vector<std::string> paths;
  std::error_code failed;
  for (const auto& entry : fs::directory_iterator(folder, failed))
    if (entry.path().filename().string().starts_with(start)) paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());
  return paths;
}

// A video device that turns one stream into another, as encoders do.
bool convertsStreams(const std::string& path) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0 || !S_ISCHR(info.st_mode)) return false;
  const UniqueFd device(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  v4l2_capability ability = {};
  if (!device || ioctl(device.get(), VIDIOC_QUERYCAP, &ability) != 0) return false;
  return (ability.device_caps & (V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE)) != 0;
}

std::optional<HardwareEncoder> onChipEncoder(const std::string& devices) {
  if (exists(devices + "/mpp_service"))
    return HardwareEncoder{EncoderKind::Rockchip, "h264_rkmpp", ""};
  const auto nodes = entries(devices + "/dri", "renderD");
  if (!nodes.empty()) return HardwareEncoder{EncoderKind::Vaapi, "h264_vaapi", nodes.front()};
  const auto videos = entries(devices, "video");
  if (std::any_of(videos.begin(), videos.end(), convertsStreams))
    return HardwareEncoder{EncoderKind::V4l2, "h264_v4l2m2m", ""};
  return std::nullopt;
}

// The asked size belongs to the picture before or after its turn; the shape tells which.
std::string turnedScale(const AgentRequest& request) {
  const std::string width = std::to_string(request.width);
  const std::string height = std::to_string(request.height);
  const std::string asAsked =
      "lte(abs(dar-" + width + "/" + height + "),abs(dar-" + height + "/" + width + "))";
  return "scale=w=if(" + asAsked + "\\," + width + "\\," + height + "):h=if(" + asAsked + "\\," +
         height + "\\," + width + ")";
}

std::string escapeCommas(std::string chain) {
  for (size_t at = chain.find(','); at != std::string::npos; at = chain.find(',', at + 2))
    if (at == 0 || chain[at - 1] != '\\') chain.insert(at, "\\");
  return chain;
}

std::string scale(const AgentRequest& request) {
  if (request.width <= 0) return "scale=trunc(iw/2)*2:trunc(ih/2)*2";
  if (request.quarterTurns % 2 != 0) return escapeCommas(turnedScale(request));
  return "scale=" + std::to_string(request.width) + ":" + std::to_string(request.height);
}

std::string subtitleFilter(const AgentRequest& request) {
  engines::DrawnSubtitle subtitle;
  subtitle.file = request.subtitle.empty() ? request.input : request.subtitle;
  subtitle.track = request.subtitle.empty() ? request.subtitleTrack : -1;
  subtitle.size = request.subtitleSize;
  subtitle.colour = request.subtitleColour;
  subtitle.shift = request.start - request.subtitleShift;
  return engines::drawingFilter(subtitle);
}

std::string filterChain(const AgentRequest& request, EncoderKind kind) {
  constexpr const char* kTurns[] = {"", "transpose=1,", "vflip,hflip,", "transpose=2,"};
  std::string chain = kTurns[request.quarterTurns] + scale(request);
  if (!request.subtitle.empty() || request.subtitleTrack >= 0)
    chain += "," + subtitleFilter(request);
  const bool planes = kind == EncoderKind::Software || kind == EncoderKind::V4l2;
  chain += planes ? ",format=yuv420p" : ",format=nv12";
  return kind == EncoderKind::Vaapi ? chain + ",hwupload" : chain;
}

void append(Words& words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
}

void addPositive(Words& words, const char* option, int value, const char* unit = "") {
  if (value > 0) append(words, {option, std::to_string(value) + unit});
}

void addProfile(Words& words, const AgentRequest& request, EncoderKind kind) {
  if (request.profile.empty() || kind == EncoderKind::V4l2) return;  // chosen by the driver
  const bool constrained = kind == EncoderKind::Vaapi && request.profile == "baseline";
  append(words, {"-profile:v", constrained ? "constrained_baseline" : request.profile});
}

Words videoWords(const AgentRequest& request, const HardwareEncoder& encoder) {
  Words words = {"-map", "0:V:" + std::to_string(request.videoTrack), "-vf",
                 filterChain(request, encoder.kind)};
  if (!request.frameRate.empty()) append(words, {"-r", request.frameRate});
  append(words, {"-c:v", encoder.name});
  addPositive(words, "-b:v", request.videoKbit, "k");
  addProfile(words, request, encoder.kind);
  if (encoder.kind == EncoderKind::Software) append(words, {"-preset", "superfast"});
  if (encoder.kind != EncoderKind::Nvenc) return words;
  if (request.highTune) append(words, {"-tune", "hq"});
  if (!encoder.device.empty()) append(words, {"-gpu", encoder.device});
  return words;
}

Words audioWords(const AgentRequest& request) {
  Words words = {"-map", "0:a:" + std::to_string(request.audioTrack) + "?"};
  if (!request.audioCodec.empty()) append(words, {"-c:a", request.audioCodec});
  if (request.audioCodec == "copy") return words;
  addPositive(words, "-ac", request.audioChannels);
  addPositive(words, "-b:a", request.audioBit);
  return words;
}

}  // namespace

std::optional<AgentRequest> parseAgentWords(const Words& words, std::string& fault) {
  AgentRequest request;
  for (size_t i = 0; i < words.size(); i += 2) {
    const auto reader = readers().find(words[i]);
    if (reader == readers().end()) {
      fault = "unknown option " + words[i];
      return std::nullopt;
    }
    if (i + 1 == words.size() || !reader->second(request, words[i + 1])) {
      fault = "wrong value of " + words[i];
      return std::nullopt;
    }
  }
  if (!request.container.empty() && !request.input.empty() && !request.output.empty())
    return request;
  fault = "-m, -i and -o are needed";
  return std::nullopt;
}

std::optional<HardwareEncoder> chooseEncoder(const AgentRequest& request,
                                             const EncoderSources& sources, std::string& fault) {
  if (isWord(sources.standIn)) return HardwareEncoder{EncoderKind::Software, sources.standIn, ""};
  if (request.nvidia) {
    if (exists(sources.devices + "/nvidiactl"))
      return HardwareEncoder{EncoderKind::Nvenc, "h264_nvenc", request.deviceNumber};
    fault = "there is no NVIDIA card with a running driver";
    return std::nullopt;
  }
  auto encoder = onChipEncoder(sources.devices);
  if (!encoder) fault = "there is no device that encodes video";
  return encoder;
}

Words encoderWords(const AgentRequest& request, const HardwareEncoder& encoder) {
  Words words = {"-y"};
  if (encoder.kind == EncoderKind::Vaapi) append(words, {"-vaapi_device", encoder.device});
  append(words, request.readingOptions);
  addPositive(words, "-ss", request.start);
  append(words, {"-noautorotate", "-i", request.input});
  const auto addOutput = [&](const std::string& path, const char* mp4Flags) {
    append(words, videoWords(request, encoder));
    append(words, audioWords(request));
    append(words, {"-strict", "-2", "-f", request.container});
    if (request.container == "mp4") append(words, {"-movflags", mp4Flags});
    append(words, {path});
  };
  // What is read while it grows cannot have its index written at the end.
  if (!request.pipeOutput.empty()) addOutput(request.pipeOutput, "+frag_keyframe+empty_moov");
  addOutput(request.output, "+faststart");
  return words;
}

}  // namespace kxtools
