// udfserve: shows the files of a UDF image below a mount point, through FUSE.
//
//   udfserve IMAGE MOUNTPOINT [FUSE-OPTION...]
//
// For systems whose kernel does not know UDF. Ends with 2 when the image holds none.

#define FUSE_USE_VERSION 26

#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <udfread/udfread.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "probe/DiscImage.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr mode_t kFolderMode = S_IFDIR | 0555;
constexpr mode_t kFileMode = S_IFREG | 0444;

struct CloseVolume {
  void operator()(udfread* volume) const { udfread_close(volume); }
};
struct CloseFolder {
  void operator()(UDFDIR* folder) const { udfread_closedir(folder); }
};
struct CloseFile {
  void operator()(UDFFILE* file) const { udfread_file_close(file); }
};
using Volume = std::unique_ptr<udfread, CloseVolume>;
using Folder = std::unique_ptr<UDFDIR, CloseFolder>;
using File = std::unique_ptr<UDFFILE, CloseFile>;

udfread* volume() {
  return static_cast<udfread*>(fuse_get_context()->private_data);
}

UDFFILE* fileOf(const fuse_file_info* info) {
  return reinterpret_cast<UDFFILE*>(info->fh);
}

int getAttributes(const char* path, struct stat* attributes) {
  *attributes = {};
  attributes->st_nlink = 1;
  if (const Folder folder{udfread_opendir(volume(), path)}) {
    attributes->st_mode = kFolderMode;
    return 0;
  }
  const File file{udfread_file_open(volume(), path)};
  const int64_t size = file ? udfread_file_size(file.get()) : -1;
  if (size < 0) return -ENOENT;
  attributes->st_mode = kFileMode;
  attributes->st_size = size;
  attributes->st_blocks = (size + 511) / 512;
  return 0;
}

// A name from an image may be anything.
bool isUsable(const char* name) {
  return name != nullptr && *name != '\0' && strchr(name, '/') == nullptr &&
         strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

int readFolder(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*) {
  const Folder folder(udfread_opendir(volume(), path));
  if (!folder) return -ENOENT;
  for (const char* own : {".", ".."}) fill(buffer, own, nullptr, 0);
  udfread_dirent entry = {};
  while (udfread_readdir(folder.get(), &entry) != nullptr) {
    struct stat attributes = {};
    attributes.st_mode = entry.d_type == UDF_DT_DIR ? kFolderMode : kFileMode;
    if (isUsable(entry.d_name) && fill(buffer, entry.d_name, &attributes, 0) != 0) break;
  }
  return 0;
}

int openFile(const char* path, fuse_file_info* info) {
  if ((info->flags & O_ACCMODE) != O_RDONLY) return -EROFS;
  File file(udfread_file_open(volume(), path));
  if (!file) return -ENOENT;
  info->fh = reinterpret_cast<uint64_t>(file.release());
  info->keep_cache = 1;
  return 0;
}

int releaseFile(const char*, fuse_file_info* info) {
  const File file(fileOf(info));
  return 0;
}

// A file that ends before its size, as in an image that is cut off, is an error: taken for
// its end, it would go unnoticed.
int readFile(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* info) {
  UDFFILE* file = fileOf(info);
  const int64_t end = udfread_file_size(file);
  if (offset < 0 || offset >= end) return 0;
  const size_t wanted = std::min(size, static_cast<size_t>(end - offset));
  if (udfread_file_seek(file, offset, UDF_SEEK_SET) != offset) return -EIO;
  size_t done = 0;
  while (done < wanted) {
    const ssize_t count = udfread_file_read(file, buffer + done, wanted - done);
    if (count <= 0) return -EIO;
    done += static_cast<size_t>(count);
  }
  return static_cast<int>(done);
}

int serve(udfread* volume, const char* program, int count, char** rest) {
  std::vector<std::string> words = {program, "-s"};  // the reader is no place for two threads
  words.insert(words.end(), rest, rest + count);
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  fuse_operations operations = {};
  operations.getattr = getAttributes;
  operations.readdir = readFolder;
  operations.open = openFile;
  operations.read = readFile;
  operations.release = releaseFile;
  return fuse_main(static_cast<int>(words.size()), argv.data(), &operations, volume);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s IMAGE MOUNTPOINT [FUSE-OPTION...]\n", argv[0]);
    return kUsage;
  }
  if (!kxprobe::readImageHead(argv[1]).isUdf) return kUsage;
  const Volume image(udfread_init());
  if (!image || udfread_open(image.get(), argv[1]) < 0) {
    fprintf(stderr, "%s cannot be read as UDF\n", argv[1]);
    return kFailed;
  }
  return serve(image.get(), argv[0], argc - 2, argv + 2);
}
