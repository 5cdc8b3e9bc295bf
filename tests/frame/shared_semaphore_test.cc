#include "shared_semaphore.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "frame/ChildProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using kxtest::RecordingLog;

bool isMapped(void* address) {
  return msync(address, 16, MS_ASYNC) == 0;
}

TEST(SharedSemaphore, HandsASignalFromAForkedChildToItsParent) {
  sem_t* sem = nullptr;
  ASSERT_EQ(my_shared_semaphore_init(&sem), 0);
  ASSERT_NE(sem, nullptr);
  const pid_t pid = fork();
  if (pid == 0) _exit(my_shared_semaphore_post(sem));
  EXPECT_EQ(my_shared_semaphore_wait_and_cleanup(sem), 0);
  EXPECT_FALSE(isMapped(sem));
  EXPECT_EQ(ChildProcess::adopt(pid).waitFor(20s).value_or(-1), 0);
}

TEST(SharedSemaphore, StaysMappedAfterAPlainWait) {
  sem_t* sem = nullptr;
  ASSERT_EQ(my_shared_semaphore_init(&sem), 0);
  const pid_t pid = fork();
  if (pid == 0) _exit(my_shared_semaphore_post(sem));
  EXPECT_EQ(my_shared_semaphore_wait(sem), 0);
  EXPECT_TRUE(isMapped(sem));
  EXPECT_EQ(ChildProcess::adopt(pid).waitFor(20s).value_or(-1), 0);
  sem_post(sem);
  EXPECT_EQ(my_shared_semaphore_wait_and_cleanup(sem), 0);
}

TEST(SharedSemaphore, IsUnmappedByAPost) {
  sem_t* sem = nullptr;
  ASSERT_EQ(my_shared_semaphore_init(&sem), 0);
  EXPECT_EQ(my_shared_semaphore_post(sem), 0);
  EXPECT_FALSE(isMapped(sem));
}

TEST(SharedSemaphore, ReportsAMappingThatFails) {
  if (kxtest::kThreadSanitizer || kxtest::kAddressSanitizer)
    GTEST_SKIP() << "the sanitizer needs the address space";
  RecordingLog log;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
  rlimit none = before;
  none.rlim_cur = 1;
  ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  sem_t* sem = nullptr;
  const int result = my_shared_semaphore_init(&sem);
  ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(sem, nullptr);
  EXPECT_TRUE(
      log.has(5, "shared_semaphore", "mmap error, errno=12, strerror=Cannot allocate memory\n"));
}

TEST(SharedSemaphore, ReportsAnUnmappingThatFails) {
  RecordingLog log;
  struct {
    char shift[16];
    sem_t sem;
  } local{};  // not at the start of a page
  sem_init(&local.sem, 0, 0);
  EXPECT_EQ(my_shared_semaphore_post(&local.sem), 1);
  EXPECT_TRUE(
      log.has(5, "shared_semaphore", "munmap error, errno=22, strerror=Invalid argument\n"));
  log.clear();
  EXPECT_EQ(my_shared_semaphore_wait_and_cleanup(&local.sem), 1) << "one failed step is enough";
  EXPECT_EQ(log.texts().size(), 1U);
}

TEST(SharedSemaphore, FailsWhenASignalInterruptsTheWait) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  sem_t* sem = nullptr;
  ASSERT_EQ(my_shared_semaphore_init(&sem), 0);
  RecordingLog log;
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = my_shared_semaphore_wait(sem); });
  kxtest::waitUntil([&] {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    return result != -1;
  });
  waiter.join();
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(log.has(5, "shared_semaphore",
                      "sem_wait error, errno=4, strerror=Interrupted system call\n"));
  sem_post(sem);
  EXPECT_EQ(my_shared_semaphore_wait_and_cleanup(sem), 0);
}

}  // namespace
