#include "watch/FolderFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::readFile;
using kxtest::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const char* const kOne =
    "<XCODESVR VER='1.0'><MEDIAFOLDER PATH='/one' TRANSCODETARGET='1' OPTION=''/></XCODESVR>";
const char* const kTwo =
    "<XCODESVR VER='1.0'><MEDIAFOLDER PATH='/two' TRANSCODETARGET='2' OPTION=''/></XCODESVR>";

class FolderFileTest : public testing::Test {
 protected:
  std::string file() const { return m_dir / "xcodesvr.xml"; }
  KxTransFileInit_s paths() const { return {m_dir / "mediadb.xml", file()}; }
  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const auto& entry : fs::directory_iterator(m_dir.path()))
      all.push_back(entry.path().filename());
    std::sort(all.begin(), all.end());
    return all;
  }
  std::vector<std::string> loaded() const {
    KxTransFileConfig config;
    EXPECT_EQ(config.init(paths()), 0);
    std::vector<std::string> folders;
    for (const auto& setting : config.getFolderSettings()) folders.push_back(setting.getFilePath());
    return folders;
  }

  kxtest::TempDir m_dir;
  kxtest::RecordingLog log;
};

}  // namespace

TEST_F(FolderFileTest, ADamagedFileIsKeptAsideWithAMessage) {
  for (const std::string content : {"<XCODESVR VER='1.0'><MEDIAFOLDER", "", "<OTHER/>", "\1\2\3"}) {
    log.clear();
    writeFile(file(), content);
    EXPECT_THAT(loaded(), IsEmpty());
    ASSERT_THAT(names(), SizeIs(2)) << content;
    EXPECT_EQ(names()[1].find("xcodesvr.xml.damaged."), 0U);
    EXPECT_EQ(readFile(m_dir / names()[1]), content);
    EXPECT_TRUE(log.hasPart("is damaged, it is kept as " + file() + ".damaged."));
    fs::remove(m_dir / names()[1]);
  }
}

TEST_F(FolderFileTest, AnInterruptedWriteIsFinished) {
  writeFile(file() + ".new", kTwo);
  EXPECT_THAT(loaded(), ElementsAre("/two"));
  EXPECT_THAT(names(), ElementsAre("xcodesvr.xml"));
}

TEST_F(FolderFileTest, AWriteThatNobodyWasToldOfDoesNotCount) {
  writeFile(file(), kOne);
  writeFile(file() + ".new", kTwo);
  EXPECT_THAT(loaded(), ElementsAre("/one"));
  EXPECT_THAT(names(), ElementsAre("xcodesvr.xml"));
  // Nor does it come back when the file is removed on purpose.
  fs::remove(file());
  EXPECT_THAT(loaded(), IsEmpty());
}

TEST_F(FolderFileTest, ADamagedFileGivesWayToTheNewVersionBesideIt) {
  writeFile(file(), "<XCODESVR");
  writeFile(file() + ".new", kTwo);
  EXPECT_THAT(loaded(), ElementsAre("/two"));
  EXPECT_THAT(names(), SizeIs(2));
}

TEST_F(FolderFileTest, LeftoversOfKilledWritersAreRemoved) {
  writeFile(file(), kOne);
  writeFile(file() + ".new.a1B2c3", "half");
  writeFile(file() + ".a1B2c3", "half");
  writeFile(file() + ".kept", "mine");
  EXPECT_THAT(loaded(), ElementsAre("/one"));
  EXPECT_THAT(names(), ElementsAre("xcodesvr.xml", "xcodesvr.xml.kept"));
}

// A writer that adds and deletes a folder without end is killed at some moment; whatever the
// moment, the next start finds one of the two complete versions.
TEST_F(FolderFileTest, WhateverKillsAWriterTheFileIsWhole) {
  {
    KxTransFileConfig config;
    ASSERT_EQ(config.init(paths()), 0);
    for (int i = 0; i < 50; ++i)
      ASSERT_EQ(config.addFolder({"/share/" + std::to_string(i), "4"}), 0);
  }
  int withExtra = 0;
  constexpr int kRounds = 60;
  constexpr int kMost = 600;
  for (int round = 0; round < kRounds || (withExtra == 0 && round < kMost); ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
      KxTransFileConfig config;
      if (config.init(paths()) != 0 || write(ready[1], "r", 1) != 1) _exit(1);
      for (;;) {
        config.delFolder("/share/extra");
        config.addFolder({"/share/extra", "4"});
      }
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    usleep(static_cast<useconds_t>(400 * (round % 40)));
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const std::vector<std::string> found = loaded();
    ASSERT_TRUE(found.size() == 50U || found.size() == 51U) << found.size();
    if (found.size() == 51U) ++withExtra;
    ASSERT_THAT(names(), ElementsAre("xcodesvr.xml"));
  }
  EXPECT_FALSE(log.hasPart("damaged"));
  EXPECT_GT(withExtra, 0);
}
