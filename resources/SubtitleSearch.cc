#include "resources/SubtitleSearch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <memory>

#include "KxTranscoder.h"
#include "frame/Log.h"
#include "resources/OutputNames.h"

static constexpr const char* kLogSource = "KxTranscodeUnit2";

namespace {

struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};

bool hasExtension(const std::string& name, const std::string& extension) {
  return name.size() > extension.size() && name.ends_with(extension);
}

bool isRegularFile(DIR* folder, const char* name) {
  struct stat info;
  return fstatat(dirfd(folder), name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

std::string findVideoSubtitle(const std::string& folder, const std::string& name) {
  const std::unique_ptr<DIR, FolderCloser> entries(opendir(folder.c_str()));
  if (!entries) return "";
  for (const char* const* extension = gSupportSubtitle; *extension != nullptr; ++extension) {
    const std::string target = runner::withoutExtension(name) + *extension;
    KX_LOG("compare target=> %s\n", target.c_str());
    rewinddir(entries.get());
    while (const dirent* entry = readdir(entries.get())) {
      if (!hasExtension(entry->d_name, *extension)) continue;
      KX_LOG("checking %s with %s ...\n", entry->d_name, target.c_str());
      if (target != entry->d_name || !isRegularFile(entries.get(), entry->d_name)) continue;
      KX_LOG("** find match subtitle -> %s%s\n", folder.c_str(), entry->d_name);
      return folder + entry->d_name;
    }
  }
  return "";
}
