#include "engines/WorkFolder.h"

#include <sys/stat.h>

#include "Misc.h"
#include "engines/EngineNote.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxTranscoder";

namespace engines {

std::string findTranscodeFolder() {
  std::string disk;
  return miscGetHDDPath(disk) == 0 ? convertFolderPath(disk) + ".system/transcode/" : "";
}

std::string transcodeFolder() {
  std::string folder = findTranscodeFolder();
  if (folder.empty()) KX_LOG_AS("init", "can not get hdd path\n");
  return folder;
}

std::string makeWorkFolder(const std::string& parent, const std::string& name) {
  const std::string path = parent + name;
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) {
    KX_LOG_AS("init", "name %s is already exist, init fail", name.c_str());
    return "";
  }
  if (mymkdir(path.c_str(), 0700) != 0) {
    KX_LOG_AS("init", "mymkdir %s fail\n", path.c_str());
    return "";
  }
  return path + "/";
}

}  // namespace engines
