#include "resources/CgroupFiles.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace cgroupfiles {

namespace {

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

bool makeOne(const std::string& path) {
  if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
  fprintf(stderr, "mkdir %s fail, %s\n", path.c_str(), strerror(errno));
  return false;
}

}  // namespace

bool makeFolder(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1))
    if (!makeOne(path.substr(0, slash))) return false;
  return makeOne(path);
}

bool write(const std::string& path, const std::string& text) {
  const std::unique_ptr<FILE, FileCloser> file(fopen(path.c_str(), "we"));
  if (!file) return false;
  fputs(text.c_str(), file.get());
  return true;
}

bool writeOrReport(const std::string& path, const std::string& text) {
  if (write(path, text)) return true;
  fprintf(stderr, "%s open fail\n", path.c_str());
  return false;
}

}  // namespace cgroupfiles
