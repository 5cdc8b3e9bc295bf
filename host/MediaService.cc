// What the installed encoder is and can do.

#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "KxHostPlatform.h"
#include "Misc.h"
#include "host/ProgramRun.h"
#include "probe/CodecNumbers.h"

namespace {

constexpr const char* kFfmpeg = "/usr/local/medialibrary/bin/ffmpeg";
constexpr const char* kAgent = "/usr/local/medialibrary/bin/transcode_agent";
constexpr const char* kAddOn = "Ampora";
constexpr std::string_view kAacEncoders[] = {"aac", "libfdk_aac"};
constexpr std::chrono::seconds kAskLimit{10};

// One installed program file; another version of it has another identity.
using ProgramIdentity = std::tuple<dev_t, ino_t, off_t, time_t, long>;

std::mutex gEncodersMutex;  // guards gEncoders
std::map<ProgramIdentity, std::vector<std::string>> gEncoders;

// Lines are " A....D name   description"; the legend above them ends in " ------".
std::vector<std::string> parseAudioEncoders(const std::string& listing) {
  std::vector<std::string> names;
  std::istringstream lines(listing);
  bool inTable = false;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string flags;
    std::string name;
    words >> flags >> name;
    if (!inTable) {
      inTable = flags == "------";
    } else if (!flags.empty() && flags.front() == 'A' && !name.empty()) {
      names.push_back(name);
    }
  }
  return names;
}

// Asks the encoder once; starting it costs far more than everything else here.
std::vector<std::string> audioEncoders(const std::string& program, const struct stat& info) {
  const ProgramIdentity identity{info.st_dev, info.st_ino, info.st_size, info.st_mtim.tv_sec,
                                 info.st_mtim.tv_nsec};
  const std::lock_guard<std::mutex> lock(gEncodersMutex);
  const auto known = gEncoders.find(identity);
  if (known != gEncoders.end()) return known->second;
  const ExecResult result =
      kxhost::runProgram({program, "-hide_banner", "-encoders"}, {kAskLimit, 1 << 20, true});
  if (!kxhost::succeeded(result)) return {};
  return gEncoders[identity] = parseAudioEncoders(result.out);
}

int copyText(const std::string& text, char* buf, int size) {
  if (buf == nullptr || size <= 0) return 1;
  const bool fits = text.size() < static_cast<size_t>(size);
  if (fits) memcpy(buf, text.c_str(), text.size() + 1);
  if (!fits) *buf = '\0';
  return fits ? 0 : 1;
}

}  // namespace

int MyUtil_getMediaSvcVarInfos(std::vector<MediaSvcVarInfo>& out) {
  out.clear();
  MediaSvcVarInfo info;
  info.ffmpegPath = miscSystemPath(kFfmpeg);
  info.agentPath = miscSystemPath(kAgent);
  struct stat file = {};
  const bool installed =
      stat(info.ffmpegPath.c_str(), &file) == 0 && access(info.ffmpegPath.c_str(), X_OK) == 0;
  if (!installed) return 1;
  info.audioEncoders = audioEncoders(info.ffmpegPath, file);
  out.push_back(info);
  return 0;
}

int MyUtil_getStaticFfmpegPath(char* buf, int size) {
  return copyText(miscSystemPath(kFfmpeg), buf, size);
}

int MyUtil_getGstTranscodeAgentPaths(GstAgentPaths& out) {
  out.chrootPath.clear();
  std::vector<char> path(1024);
  const std::string packages = miscSystemPath("/etc/config/kxpkg.conf");
  MyUtil_GetKeyStr(kAddOn, "Install_Path", "", path.data(), static_cast<int>(path.size()),
                   packages.c_str());
  struct stat info = {};
  const bool present =
      path.front() == '/' && stat(path.data(), &info) == 0 && S_ISDIR(info.st_mode);
  if (!present) return 1;
  out.chrootPath = path.data();
  return 0;
}

int MyUtil_hasAACSupport(void) {
  std::vector<MediaSvcVarInfo> services;
  if (MyUtil_getMediaSvcVarInfos(services) != 0) return 0;
  const std::vector<std::string>& encoders = services.front().audioEncoders;
  return std::find_first_of(encoders.begin(), encoders.end(), std::begin(kAacEncoders),
                            std::end(kAacEncoders)) != encoders.end()
             ? 1
             : 0;
}

int getFFmpegCodecName(int codecId, char* buf, int size) {
  const auto nativeId = static_cast<AVCodecID>(kxprobe::toNativeCodecId(codecId));
  const AVCodecDescriptor* codec = codecId > 0 ? avcodec_descriptor_get(nativeId) : nullptr;
  const std::string name = codec != nullptr ? codec->name : "";
  const int failed = copyText(name.size() <= 9 ? name : "", buf, size);
  return failed != 0 || name.empty() || name.size() > 9 ? 1 : 0;
}
