#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <string>

#include "KxHostPlatform.h"

TEST(SystemFacts, CountsTheProcessorsOfTheMachineWhateverThisProcessMayUse) {
  const int before = MyUtil_GetCpuNum();
  EXPECT_GE(before, 1);
  cpu_set_t old;
  ASSERT_EQ(sched_getaffinity(0, sizeof old, &old), 0);
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  EXPECT_EQ(MyUtil_GetCpuNum(), before);
  sched_setaffinity(0, sizeof old, &old);
}

TEST(SystemFacts, GivesTheMemoryInKilobytes) {
  std::ifstream meminfo("/proc/meminfo");
  std::string name;
  long long total = 0;
  meminfo >> name >> total;
  ASSERT_EQ(name, "MemTotal:");
  EXPECT_EQ(MyUtil_GetTotalMem(), total > INT_MAX ? INT_MAX : total);
}

TEST(SystemFacts, ReadsTheDecimalPrefixOfANumber) {
  errno = EXDEV;
  EXPECT_EQ(myatoll(nullptr), 0);
  EXPECT_EQ(myatoll(""), 0);
  EXPECT_EQ(myatoll("word"), 0);
  EXPECT_EQ(myatoll(" -12x"), -12);
  EXPECT_EQ(myatoll("9007199254740993"), 9007199254740993LL);
  EXPECT_EQ(myatoll("99999999999999999999"), LLONG_MAX);
  EXPECT_EQ(errno, EXDEV);
}

TEST(SystemFacts, AScopedLockHoldsItsMutexForItsScope) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  {
    const MediaLibrary::ScopedMutexLock lock(mutex);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
  }
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
}
