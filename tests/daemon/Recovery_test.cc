#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>

#include "KxTransDBMgr.h"
#include "daemon/Recovery.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using xcoded::isLeftover;

namespace {

std::string nameOf(pid_t pid, time_t seconds, const std::string& rest = ".mp4") {
  return std::to_string(pid) + "_140213_" + std::to_string(seconds) + "_0a1b2c" + rest;
}

pid_t deadPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

class RecoveryTest : public testing::Test {
 protected:
  void SetUp() override {
    m_root.write("/etc/config/medialibrary.conf",
                 "[OPTIONS]\nMlsDataDir=" + (m_dir / "data") + "\n");
    ASSERT_EQ(store().init(m_dir / "jobs.db"), 0);
  }
  void TearDown() override { store().uninit(); }

  KxTransDBMgr& store() { return *KxTransDBMgr::getInstance(); }

  void insert(int id, const std::string& src, int status) {
    ASSERT_EQ(store().exec("INSERT INTO JobTable (Id, SrcPath, DstPath, JobFlag, Rank, Status, "
                           "DateStart) VALUES(" +
                           std::to_string(id) + ", '" + src + "', '', 1, " + std::to_string(id) +
                           ", " + std::to_string(status) + ", 99)"),
              0);
  }
  KxDBTaskParam row(int id) { return store().getDBJobById(id).at(0).param; }

  std::string makeFile(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    kxtest::writeFile(path, "x");
    return path;
  }

  kxtest::PrivateRoot m_root;
  kxtest::TempDir m_dir;
};

}  // namespace

TEST(Leftovers, AreNamedAfterAProcessThatIsGone) {
  EXPECT_TRUE(isLeftover(nameOf(deadPid(), time(nullptr))));
  EXPECT_TRUE(isLeftover(nameOf(deadPid(), time(nullptr), ".mp4.remux.mp4")));
  EXPECT_TRUE(isLeftover(nameOf(deadPid(), time(nullptr), "")));
}

TEST(Leftovers, AreNamesOfProcessesThatOnlyWaitToBeReaped) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  ASSERT_GT(pid, 0);
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(isLeftover(nameOf(pid, time(nullptr))));
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(Leftovers, OfALivingProcessStay) {
  EXPECT_FALSE(isLeftover(nameOf(getpid(), time(nullptr))));
  EXPECT_FALSE(isLeftover(nameOf(getppid(), time(nullptr))));
}

TEST(Leftovers, AProcessThatStartedLaterIsAnotherOne) {
  EXPECT_TRUE(isLeftover(nameOf(getpid(), time(nullptr) - 86400)));
}

TEST(Leftovers, OtherNamesStay) {
  for (const std::string name : {"", "..", "film.mp4", "12_film.mp4", "1_2_3.mp4",
                                 "999999_1_2_XYZ123.mp4", "checkpoint_1_2_3_0a1b2c"})
    EXPECT_FALSE(isLeftover(name)) << name;
}

TEST_F(RecoveryTest, InterruptedJobsWaitAgainAndTheirTemporaryFilesGo) {
  const std::string folder = m_dir / "share/";
  insert(1, folder + "a.mp4", 3);
  insert(2, folder + "b.mp4", 1);
  insert(3, folder + "c.mp4", 0);
  const std::string temp = folder + ".@__thumb/temp/";
  const std::string leftover = makeFile(temp + nameOf(deadPid(), time(nullptr)));
  const std::string ours = makeFile(temp + nameOf(getpid(), time(nullptr)));
  const std::string foreign = makeFile(temp + "notes.txt");
  xcoded::recoverFromCrash();
  EXPECT_EQ(row(1).status, 0);
  EXPECT_EQ(row(1).dateStart, 0);
  EXPECT_EQ(row(2).status, 1);
  EXPECT_EQ(row(3).status, 0);
  EXPECT_FALSE(fs::exists(leftover));
  EXPECT_TRUE(fs::exists(ours));
  EXPECT_TRUE(fs::exists(foreign));
}

TEST_F(RecoveryTest, TheScratchFolderOfAnInterruptedDocumentGoes) {
  const std::string folder = m_dir / "share/";
  insert(1, folder + "a.pdf", 3);
  const std::string dead = nameOf(deadPid(), time(nullptr), "");
  makeFile(folder + "a.pdf.gstmp." + dead + "/gs.log");
  makeFile(folder + "a.pdf.album/a-1.jpg");
  makeFile(folder + "a.pdf.gstmp.mine/x");
  makeFile(folder + "other.gstmp." + dead + "/x");
  xcoded::recoverFromCrash();
  EXPECT_FALSE(fs::exists(folder + "a.pdf.gstmp." + dead));
  for (const char* kept : {"a.pdf.album/a-1.jpg", "a.pdf.gstmp.mine/x"})
    EXPECT_TRUE(fs::exists(folder + kept)) << kept;
  EXPECT_TRUE(fs::exists(folder + "other.gstmp." + dead + "/x"));
}

TEST_F(RecoveryTest, WorkFoldersOfDeadProcessesGoWhole) {
  const std::string work = m_dir / "data/.system/transcode/";
  const std::string leftover = work + nameOf(deadPid(), time(nullptr), "");
  makeFile(leftover + "/segment_00000.mp4");
  makeFile(leftover + "/deeper/x");
  makeFile(work + "checkpoint/part");
  xcoded::recoverFromCrash();
  EXPECT_FALSE(fs::exists(leftover));
  EXPECT_TRUE(fs::exists(work + "checkpoint/part"));
}

TEST_F(RecoveryTest, OnlyTheCheckpointsOfJobsThatWaitStay) {
  const std::string work = m_dir / "data/.system/transcode/";
  insert(1, "/share/a.mp4", 3);
  insert(2, "/share/b.mp4", 1);
  const std::string mine = work + "checkpoint_1_cf0caadfa81d4430";
  for (const std::string& name :
       {mine, work + "checkpoint_1_0123456789abcdef", work + "checkpoint_2_0123456789abcdef",
        work + "checkpoint_9_0123456789abcdef", work + "checkpoint_x"})
    makeFile(name + "/owner");
  xcoded::recoverFromCrash();
  EXPECT_EQ(row(1).status, 0);
  EXPECT_TRUE(fs::exists(mine + "/owner"));
  EXPECT_FALSE(fs::exists(work + "checkpoint_1_0123456789abcdef")) << "of another source";
  EXPECT_FALSE(fs::exists(work + "checkpoint_2_0123456789abcdef")) << "of a finished job";
  EXPECT_FALSE(fs::exists(work + "checkpoint_9_0123456789abcdef")) << "of no job";
  EXPECT_TRUE(fs::exists(work + "checkpoint_x")) << "no checkpoint";
}

TEST_F(RecoveryTest, ALinkInPlaceOfTheTemporaryFolderIsNotFollowed) {
  const std::string folder = m_dir / "share/";
  const std::string victim = makeFile((m_dir / "victim/") + nameOf(deadPid(), time(nullptr)));
  fs::create_directories(folder + ".@__thumb");
  fs::create_directory_symlink(m_dir / "victim", folder + ".@__thumb/temp");
  insert(1, folder + "a.mp4", 3);
  xcoded::recoverFromCrash();
  EXPECT_TRUE(fs::exists(victim));
  EXPECT_EQ(row(1).status, 0);
}
