#include "engines/ExtractedSubtitle.h"

#include <sys/stat.h>
#include <unistd.h>

#include "Misc.h"
#include "engines/EngineNote.h"
#include "engines/HostFacts.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace engines {
namespace {

constexpr const char* kFunction = "init";

bool isPlainFolder(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// What a link leads to was not extracted here.
bool isPlainFile(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Users can write beside their media: a link in place of a hidden folder would let them
// choose where the service writes.
bool makeHiddenFolders(const std::string& subtitle) {
  const std::string folder = subtitle.substr(0, subtitle.rfind('/'));
  const std::string thumb = folder.substr(0, folder.rfind('/'));
  return mymkdir(folder.c_str(), 0755) == 0 && isPlainFolder(thumb) && isPlainFolder(folder);
}

int runExtractor(const std::string& program, const TranscodeParam& param,
                 const std::string& subtitle, const Extraction& how) {
  unlink(subtitle.c_str());  // a dangling link would send the text elsewhere
  const int pid = miscLaunchCmdNoWait(
      {program, "-i", param.m_inFile, "-track", std::to_string(param.m_sid), subtitle}, how.log);
  if (pid < 0) {
    KX_LOG_AS(kFunction, "launch subpull cmd fail\n");
    return 1;
  }
  if (how.wait(pid) == 0) return 0;
  KX_LOG_AS(kFunction, "subpull cmd fail\n");
  unlink(subtitle.c_str());  // half a file would count as extracted the next time
  return 1;
}

int extract(const TranscodeParam& param, const std::string& subtitle, const Extraction& how) {
  KX_LOG_AS(kFunction, "intra subtitle %s do not exist, try to generate it\n", subtitle.c_str());
  const std::string program = miscSystemPath("/usr/local/medialibrary/bin/subpull");
  if (!exists(program)) {
    KX_LOG_AS(kFunction, "%s do not exist, can not generate intra subtitle\n", program.c_str());
    return 0;
  }
  if (!makeHiddenFolders(subtitle)) {
    KX_LOG_AS(kFunction, "can not create folder of %s, can not generate intra subtitle\n",
              subtitle.c_str());
    return 0;
  }
  return runExtractor(program, param, subtitle, how);
}

}  // namespace

std::string extractedSubtitlePath(const std::string& video, int subtitleId) {
  const size_t slash = video.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : video.substr(0, slash);
  const std::string name = slash == std::string::npos ? video : video.substr(slash + 1);
  return folder + "/.@__thumb/.genSub/" + name + ".si" + std::to_string(subtitleId) + ".srt";
}

int prepareSubtitle(TranscodeParam& param, const Extraction& how) {
  if (param.m_sid < 0) return 0;
  const std::string subtitle = extractedSubtitlePath(param.m_inFile, param.m_sid);
  if (isPlainFile(subtitle)) {
    KX_LOG_AS(kFunction, "intra subtitle %s exist\n", subtitle.c_str());
  } else if (extract(param, subtitle, how) != 0) {
    return 1;
  }
  if (param.m_subtitle.empty() && isPlainFile(subtitle)) param.m_subtitle = subtitle;
  return 0;
}

}  // namespace engines
