// Loads a library by its path, with nothing of a host process around it.

#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  if (dlopen(argv[1], RTLD_LAZY) != nullptr) return 0;
  fprintf(stderr, "%s\n", dlerror());
  return 1;
}
