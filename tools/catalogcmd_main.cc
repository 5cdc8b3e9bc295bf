// catalogcmd: what the transcoding service tells the media library.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "host/IniFile.h"
#include "tools/Catalog.h"
#include "tools/ToolRoot.h"

namespace {

constexpr const char* kOwnPath = "/usr/local/medialibrary/bin/catalogcmd";
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kNotFound = 3;

using Words = std::vector<std::string>;

// The catalogue lies in the media data folder of the system that the command belongs to.
std::string dataFolder() {
  const std::string root = kxtools::systemRoot(kOwnPath);
  const std::string configuration = root + "/etc/config/medialibrary.conf";
  std::string folder = kxhost::readIniKey(configuration, "OPTIONS", "MlsDataDir").value_or("");
  if (folder.empty()) folder = root + "/var/lib/xcode";
  return folder.back() == '/' ? folder : folder + "/";
}

template <typename File>
int withFile(const char* name, const std::function<int(File&)>& use) {
  const std::string path = dataFolder() + name;
  File file(path);
  const int result = file.isOpen() ? use(file) : kFailed;
  if (result == kFailed) fprintf(stderr, "%s: %s\n", path.c_str(), file.error().c_str());
  return result;
}

int withMarks(const std::function<int(kxtools::TranscodeMarks&)>& use) {
  return withFile("marks.db", use);
}

int withPictures(const std::function<int(kxtools::PictureCatalog&)>& use) {
  return withFile("catalog.db", use);
}

int transcodeStatus(const Words& words) {
  if (words[1] != "-2" && words[1] != "0") return kUsage;
  const int status = words[1] == "-2" ? -2 : 0;
  return withMarks([&](auto& marks) { return marks.set(words[0], status) ? 0 : kFailed; });
}

int createFile(const Words& words) {
  struct stat info = {};
  if (lstat(words[0].c_str(), &info) != 0) {
    fprintf(stderr, "%s does not exist\n", words[0].c_str());
    return kNotFound;
  }
  return withPictures([&](auto& catalog) {
    const auto id = catalog.addFile(words[0]);
    if (id) printf("%lld\n", *id);
    return id ? 0 : kFailed;
  });
}

// ALBUM is the id of a file, ":" and the folder of the album.
int addToPicAlbum(const Words& words) {
  char* end = nullptr;
  const long long id = strtoll(words[0].c_str(), &end, 10);
  const bool valid = id > 0 && *end == ':' && end[1] != '\0' && words[1] == "1";
  if (!valid) return kUsage;
  return withPictures([&](auto& catalog) {
    if (catalog.addToAlbum(id, end + 1)) return 0;
    if (catalog.hasFailed()) return kFailed;
    fprintf(stderr, "no file has the id %lld\n", id);
    return kNotFound;
  });
}

int show(const Words& words) {
  int status = 0;
  const int result = withMarks([&](auto& marks) {
    status = marks.get(words[0]);
    return 0;
  });
  if (result != 0) return result;
  return withPictures([&](auto& catalog) {
    printf("id=%lld transcode=%d\n", catalog.findFile(words[0]).value_or(0), status);
    return 0;
  });
}

int album(const Words& words) {
  return withPictures([&](auto& catalog) {
    for (const std::string& file : catalog.albumFiles(words[0])) printf("%s\n", file.c_str());
    return 0;
  });
}

struct Command {
  const char* name;
  size_t arguments;
  int (*run)(const Words&);
};
constexpr Command kCommands[] = {{"TranscodeStatus", 2, transcodeStatus},
                                 {"createfile", 1, createFile},
                                 {"addToPicAlbum", 2, addToPicAlbum},
                                 {"show", 1, show},
                                 {"album", 1, album}};

int usage() {
  fputs("usage: catalogcmd TranscodeStatus PATH -2|0   mark a file as waiting for a transcode\n"
        "       catalogcmd createfile PATH             make a file known, print its id\n"
        "       catalogcmd addToPicAlbum ID:FOLDER 1   add a file to the album of a folder\n"
        "       catalogcmd show PATH                   print id (0: unknown) and mark of a file\n"
        "       catalogcmd album FOLDER                list the files of an album\n",
        stderr);
  return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
  const Words words(argv + 1, argv + argc);
  for (const Command& command : kCommands) {
    if (words.empty() || words[0] != command.name) continue;
    if (words.size() != command.arguments + 1 || words[1].empty()) return usage();
    const int result = command.run(Words(words.begin() + 1, words.end()));
    return result == kUsage ? usage() : result;
  }
  return usage();
}
