#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "KxTranscoder.h"
#include "engines/PipeCopy.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using engines::PipeCopy;
using kxtest::readFile;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::waitUntil;
using kxtest::writeFile;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr const char* kCancelled = "FileOutputHelper has been cancelled\n";

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

std::string someBytes(size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((i * 31 + i / 8192) & 0xff);
  return bytes;
}

void append(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
}

class Copy : public testing::Test {
 protected:
  void SetUp() override {
    m_target.reset(fopen((m_dir / "target").c_str(), "w"));
    ASSERT_TRUE(m_target);
    setvbuf(m_target.get(), nullptr, _IONBF, 0);
  }
  std::string source() const { return m_dir / "source"; }
  std::string copied() const { return readFile(m_dir / "target"); }
  std::string timeoutText() const { return "timeout: can not open " + source() + "\n"; }

  TempDir m_dir;
  RecordingLog m_log;
  File m_target;
};

}  // namespace

TEST_F(Copy, AnInitWithoutSourceOrDestinationFails) {
  FileOutputHelper helper;
  EXPECT_EQ(helper.init("", m_target.get()), 1);
  EXPECT_EQ(helper.init(source(), nullptr), 1);
  EXPECT_EQ(m_log.count("FileOutputHelper init fail\n"), 2u);
  EXPECT_EQ(helper.start(), 1);
}

TEST_F(Copy, AStartWithoutASuccessfulInitFails) {
  FileOutputHelper helper;
  EXPECT_EQ(helper.start(), 1);
  EXPECT_TRUE(m_log.has(5, "KxTranscoder", "m_keep=false, start fail\n"));
}

TEST_F(Copy, AStartAfterStopFails) {
  FileOutputHelper helper;
  ASSERT_EQ(helper.init(source(), m_target.get()), 0);
  EXPECT_EQ(helper.stop(), 0);
  EXPECT_EQ(helper.start(), 1);
}

TEST_F(Copy, ASecondStartIsRefusedAndTheFirstThreadGoesOn) {
  writeFile(source(), "bytes");
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), m_target.get()), 0);
    ASSERT_EQ(helper.start(), 0);
    EXPECT_EQ(helper.start(), 1);
    EXPECT_TRUE(waitUntil([&] { return copied() == "bytes"; }));
    helper.finish();
  }
  EXPECT_EQ(copied(), "bytes");
}

TEST_F(Copy, AThreadWithoutItsObjectSaysSo) {
  EXPECT_EQ(FileOutputHelperFunc(nullptr), nullptr);
  EXPECT_TRUE(m_log.has(5, "KxTranscoder", "arg == NULL\n"));
}

TEST_F(Copy, WhatComesThroughAPipeArrivesWhole) {
  const std::string bytes = someBytes(300000);
  ASSERT_EQ(mkfifo(source().c_str(), 0600), 0);
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), m_target.get()), 0);
    ASSERT_EQ(helper.start(), 0);
    std::thread encoder([&] { append(source(), bytes); });
    encoder.join();
    EXPECT_TRUE(waitUntil([&] { return !copied().empty(); }));
    EXPECT_EQ(helper.finish(), 0);
  }
  EXPECT_EQ(copied(), bytes);
  EXPECT_TRUE(m_log.texts().empty()) << m_log.texts().front();
}

TEST_F(Copy, AFileThatGrowsAfterItsFirstEndIsCopiedOn) {
  writeFile(source(), "first");
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), m_target.get()), 0);
    ASSERT_EQ(helper.start(), 0);
    ASSERT_TRUE(waitUntil([&] { return copied() == "first"; }));
    append(source(), ", second");
    ASSERT_TRUE(waitUntil([&] { return copied() == "first, second"; }));
    append(source(), ", third");
    helper.finish();
  }
  EXPECT_EQ(copied().substr(0, 13), "first, second");
  EXPECT_FALSE(m_log.has(kCancelled));
}

TEST_F(Copy, AfterFinishTheRestIsCopiedUntilTheFirstEmptyRead) {
  const std::string bytes = someBytes(2000000);
  writeFile(source(), bytes);
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), m_target.get()), 0);
    ASSERT_EQ(helper.start(), 0);
    ASSERT_TRUE(waitUntil([&] { return !copied().empty(); }));
    helper.finish();
  }
  EXPECT_EQ(copied(), bytes);
  EXPECT_TRUE(m_log.texts().empty());
}

TEST_F(Copy, AFinishBeforeTheFirstReadEndsAtOnceWithoutCopying) {
  writeFile(source(), "never copied");
  const std::atomic<bool> keep{true};
  const std::atomic<bool> finishing{true};
  PipeCopy(source(), m_target.get(), keep, finishing).run({});
  EXPECT_EQ(copied(), "");
  EXPECT_TRUE(m_log.texts().empty());
}

TEST_F(Copy, AStopWhileCopyingCancels) {
  ASSERT_EQ(mkfifo(source().c_str(), 0600), 0);
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), m_target.get()), 0);
    ASSERT_EQ(helper.start(), 0);
    append(source(), "some");
    ASSERT_TRUE(waitUntil([&] { return copied() == "some"; }));
    EXPECT_EQ(helper.stop(), 0);
  }
  EXPECT_TRUE(m_log.has(5, "KxTranscoder", kCancelled));
}

TEST_F(Copy, AStopBeforeTheSourceWasOpenedCancels) {
  writeFile(source(), "never copied");
  const std::atomic<bool> keep{false};
  const std::atomic<bool> finishing{false};
  PipeCopy(source(), m_target.get(), keep, finishing).run({});
  EXPECT_TRUE(m_log.has(kCancelled));
  EXPECT_EQ(copied(), "");
}

TEST_F(Copy, AStopWhileTheSourceIsAwaitedEndsTheWaitWithTheTimeoutMessage) {
  steady_clock::time_point stopped;
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), m_target.get()), 0);
    ASSERT_EQ(helper.start(), 0);
    stopped = steady_clock::now();
    helper.stop();
  }
  EXPECT_LT(steady_clock::now() - stopped, milliseconds(900));
  EXPECT_TRUE(m_log.has(5, "KxTranscoder", timeoutText()));
  EXPECT_FALSE(m_log.has(kCancelled));
}

TEST_F(Copy, ASourceThatNeverComesEndsAfterNinetyAttempts) {
  const PipeCopy::Waiting standard;
  EXPECT_EQ(standard.attempts, 90);
  EXPECT_EQ(standard.interval, std::chrono::seconds(1));

  const std::atomic<bool> keep{true};
  const std::atomic<bool> finishing{false};
  const auto begin = steady_clock::now();
  PipeCopy(source(), m_target.get(), keep, finishing).run({90, milliseconds(2)});
  EXPECT_GE(steady_clock::now() - begin, milliseconds(180));
  EXPECT_EQ(m_log.texts(), std::vector<std::string>{timeoutText()});
}

TEST_F(Copy, ASourceThatAppearsWhileItIsAwaitedIsCopied) {
  const std::atomic<bool> keep{true};
  std::atomic<bool> finishing{false};
  std::thread copy([&] {
    PipeCopy(source(), m_target.get(), keep, finishing).run({2000, milliseconds(5)});
  });
  writeFile(m_dir / "source.part", "late");
  fs::rename(m_dir / "source.part", source());
  EXPECT_TRUE(waitUntil([&] { return copied() == "late"; }));
  finishing = true;
  copy.join();
  EXPECT_TRUE(m_log.texts().empty());
}

TEST_F(Copy, AShortWriteIsLoggedAndTheCopyGoesOn) {
  const File full(fopen("/dev/full", "w"));
  ASSERT_TRUE(full);
  setvbuf(full.get(), nullptr, _IONBF, 0);
  writeFile(source(), someBytes(3UL * 8192));
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), full.get()), 0);
    ASSERT_EQ(helper.start(), 0);
    const std::string failed = "fwrite fail, error=28, strerror=No space left on device\n";
    EXPECT_TRUE(waitUntil([&] { return m_log.count(failed) == 3; }));
    helper.finish();
  }
}

TEST_F(Copy, TheDestinationStaysOpen) {
  {
    FileOutputHelper helper;
    ASSERT_EQ(helper.init(source(), m_target.get()), 0);
  }
  EXPECT_GT(fputs("still open", m_target.get()), 0);
  EXPECT_EQ(copied(), "still open");
}
