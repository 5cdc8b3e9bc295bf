#include "daemon/MemoryTrim.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

namespace xcoded {
namespace {

// One mapping of this process as /proc/self/smaps tells.
struct Mapping {
  uintptr_t start = 0;
  uintptr_t end = 0;
  bool isPlainFile = false;  // of a file, and not writable
  bool isChanged = false;    // some page differs from the file (relocations, for one)
};

bool readHeader(const std::string& line, Mapping& mapping) {
  char perms[5] = {};
  int pathAt = 0;
  if (sscanf(line.c_str(), "%lx-%lx %4s %*s %*s %*s %n", &mapping.start, &mapping.end, perms,
             &pathAt) != 3)
    return false;
  mapping.isChanged = false;
  mapping.isPlainFile = perms[1] == '-' && line.compare(static_cast<size_t>(pathAt), 1, "/") == 0;
  return true;
}

bool tellsOfChange(const std::string& line) {
  char name[32] = {};
  unsigned long kilobytes = 0;
  if (sscanf(line.c_str(), "%31[^:]: %lu kB", name, &kilobytes) != 2 || kilobytes == 0)
    return false;
  const std::string field = name;
  return field == "Anonymous" || field == "Private_Dirty" || field == "Shared_Dirty" ||
         field == "Swap";
}

void drop(const Mapping& mapping) {
  if (mapping.isPlainFile && !mapping.isChanged)
    madvise(reinterpret_cast<void*>(mapping.start), mapping.end - mapping.start, MADV_DONTNEED);
}

}  // namespace

void giveBackMemory() {
  malloc_trim(0);
  std::ifstream smaps("/proc/self/smaps");
  Mapping current;
  for (std::string line; std::getline(smaps, line);) {
    Mapping next;
    if (readHeader(line, next)) {
      drop(current);
      current = next;
    } else if (tellsOfChange(line)) {
      current.isChanged = true;
    }
  }
  drop(current);
}

}  // namespace xcoded
