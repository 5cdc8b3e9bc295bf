#include "shared_semaphore.h"

#include <sys/mman.h>

#include "frame/Log.h"

static constexpr const char* kLogSource = "shared_semaphore";

namespace {

// Less than a sem_t takes, but the kernel maps a whole page.
constexpr size_t kMappedSize = 16;

// True when the call succeeded; else its failure is logged.
bool succeeded(int result, const char* func, const char* call) {
  if (result == 0) return true;
  KX_LOG_ERRNO_AS(func, "%s error", call);
  return false;
}

}  // namespace

int my_shared_semaphore_init(sem_t** sem) {
  *sem = nullptr;
  void* memory =
      mmap(nullptr, kMappedSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (!succeeded(memory == MAP_FAILED ? -1 : 0, __func__, "mmap")) return 1;
  auto* made = static_cast<sem_t*>(memory);
  if (!succeeded(sem_init(made, 1, 0), __func__, "sem_init")) {
    munmap(memory, kMappedSize);
    return 1;
  }
  *sem = made;
  return 0;
}

int my_shared_semaphore_post(sem_t* sem) {
  const bool posted = succeeded(sem_post(sem), __func__, "sem_post");
  const bool unmapped = succeeded(munmap(sem, kMappedSize), __func__, "munmap");
  return posted && unmapped ? 0 : 1;
}

int my_shared_semaphore_wait(sem_t* sem) {
  return succeeded(sem_wait(sem), __func__, "sem_wait") ? 0 : 1;
}

int my_shared_semaphore_wait_and_cleanup(sem_t* sem) {
  const bool waited = succeeded(sem_wait(sem), __func__, "sem_wait");
  const bool destroyed = succeeded(sem_destroy(sem), __func__, "sem_destroy");
  const bool unmapped = succeeded(munmap(sem, kMappedSize), __func__, "munmap");
  return waited && destroyed && unmapped ? 0 : 1;
}
