#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "KxHostPlatform.h"
#include "KxTransFileConfig.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::readFile;
using kxtest::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class FolderConfig : public testing::Test {
 protected:
  std::string file() const { return m_dir / "xcodesvr.xml"; }
  std::string library() const { return m_dir / "mediadb.xml"; }
  int init() { return m_config.init({library(), file()}); }

  // "PATH:TARGET:OPTION" of all entries by their places.
  static std::vector<std::string> entriesOf(KxTransFileConfig& config) {
    std::vector<std::string> entries;
    KxTransFileSetting setting;
    for (unsigned int i = 0; config.getFolderSetting(i, setting) == 0; ++i) {
      entries.push_back(setting.getFilePath() + ":" + setting.getTarget() + ":" +
                        setting.getOptions());
    }
    EXPECT_EQ(entries.size(), static_cast<size_t>(config.size()));
    return entries;
  }
  // What a new process would find.
  std::vector<std::string> stored() {
    KxTransFileConfig other;
    EXPECT_EQ(other.init({library(), file()}), 0);
    return entriesOf(other);
  }
  std::string found(const std::string& path, bool exact = false) {
    KxTransFileSetting setting;
    return m_config.getFolderSetting(path, setting, exact) == 0 ? setting.getFilePath() : "none";
  }

  kxtest::TempDir m_dir;
  kxtest::RecordingLog log;
  KxTransFileConfig m_config;
};

}  // namespace

TEST_F(FolderConfig, TheFirstStartWithoutAnyFileLeavesAnEmptyOne) {
  EXPECT_EQ(init(), 0);
  EXPECT_EQ(m_config.size(), 0);
  const XMLNode root = XMLNode::openFileHelper(file().c_str(), "XCODESVR");
  ASSERT_FALSE(root.isEmpty());
  EXPECT_STREQ(root.getAttribute("VER"), "1.0");
  EXPECT_EQ(root.nChildNode("MEDIAFOLDER"), 0);
  EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(FolderConfig, TheFirstStartTakesOverTheMediaLibrarysFolders) {
  writeFile(library(), "<MEDIADB>"
                       "<MEDIAFOLDER MOUNT='/share/vol1' PATH='/Multimedia/' TRANSCODETARGET='4'/>"
                       "<MEDIAFOLDER PATH='/NoMount/' TRANSCODETARGET='4'/>"
                       "<MEDIAFOLDER MOUNT='/share/vol1' TRANSCODETARGET='4'/>"
                       "<MEDIAFOLDER MOUNT='/share/vol1' PATH='/NoTarget/'/>"
                       "<MEDIAFOLDER MOUNT='/share/vol2' PATH='Public' TRANSCODETARGET='-1'/>"
                       "</MEDIADB>");
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(entriesOf(m_config),
              ElementsAre("/share/vol1/Multimedia/:4:", "/share/vol2Public:-1:"));
  // Only once: later changes there are not looked at.
  writeFile(library(), "<MEDIADB/>");
  EXPECT_EQ(stored().size(), 2U);
}

TEST_F(FolderConfig, AnEntryWithoutOneOfItsAttributesIsLeftOutAndGoneAtTheNextWrite) {
  writeFile(file(), "<XCODESVR VER='1.0'>"
                    "<MEDIAFOLDER PATH='/share/a' TRANSCODETARGET='4' OPTION='x'/>"
                    "<MEDIAFOLDER PATH='/share/b' TRANSCODETARGET='4'/>"
                    "<MEDIAFOLDER PATH='/share/c' OPTION=''/>"
                    "<MEDIAFOLDER TRANSCODETARGET='4' OPTION=''/>"
                    "</XCODESVR>");
  EXPECT_EQ(init(), 0);
  EXPECT_THAT(entriesOf(m_config), ElementsAre("/share/a:4:x"));
  EXPECT_NE(readFile(file()).find("/share/b"), std::string::npos);
  EXPECT_EQ(m_config.addFolder({"/share/d", "8"}), 0);
  EXPECT_EQ(readFile(file()).find("/share/b"), std::string::npos);
  EXPECT_THAT(stored(), ElementsAre("/share/a:4:x", "/share/d:8:"));
}

TEST_F(FolderConfig, FoldersStandInTheFileInAscendingOrder) {
  ASSERT_EQ(init(), 0);
  EXPECT_EQ(m_config.addFolder({"/share/b", "4", "slow"}), 0);
  EXPECT_EQ(m_config.addFolder({"/share/a", "8"}), 0);
  EXPECT_EQ(m_config.addFolder({"/share/B", "1"}), 0);
  EXPECT_THAT(stored(), ElementsAre("/share/B:1:", "/share/a:8:", "/share/b:4:slow"));
  const std::string text = readFile(file());
  EXPECT_LT(text.find("/share/B"), text.find("/share/a"));
  EXPECT_LT(text.find("/share/a"), text.find("/share/b"));
  EXPECT_NE(text.find("\n  <MEDIAFOLDER PATH=\"/share/a\" TRANSCODETARGET=\"8\" OPTION=\"\""),
            std::string::npos)
      << text;
  KxTransFileSetting untouched("/x", "1");
  EXPECT_EQ(m_config.getFolderSetting(3, untouched), 1);
  EXPECT_EQ(untouched.getFilePath(), "/x");
}

TEST_F(FolderConfig, ChangesOfWhatIsPresentOrAbsentLeaveTheFileAlone) {
  ASSERT_EQ(init(), 0);
  ASSERT_EQ(m_config.addFolder({"/share/a", "4", "o"}), 0);
  const std::string before = readFile(file());
  const auto written = fs::last_write_time(file());
  EXPECT_EQ(m_config.addFolder({"/share/a", "8"}), 1);
  EXPECT_EQ(m_config.addFolder({"/share//a/", "8"}), 1);
  EXPECT_EQ(m_config.addFolder({"", "8"}), 1);
  EXPECT_EQ(m_config.updateFolder({"/share", "8"}), 1);
  EXPECT_EQ(m_config.updateFolder({"/share/a/b", "8"}), 1);
  EXPECT_EQ(m_config.delFolder("/share/a/b"), 1);
  EXPECT_EQ(m_config.delFolder("/"), 1);
  EXPECT_EQ(readFile(file()), before);
  EXPECT_EQ(fs::last_write_time(file()), written);
}

TEST_F(FolderConfig, UpdateAndDeleteTakeThePathWithAndWithoutItsFinalSlash) {
  ASSERT_EQ(init(), 0);
  ASSERT_EQ(m_config.addFolder({"/share/a/", "4", "o"}), 0);
  EXPECT_EQ(m_config.updateFolder({"/share/a", "8", "p"}), 0);
  EXPECT_THAT(stored(), ElementsAre("/share/a/:8:p"));
  EXPECT_EQ(m_config.delFolder("/share//a"), 0);
  EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(FolderConfig, APathBelongsToTheLongestFolderThatContainsIt) {
  ASSERT_EQ(init(), 0);
  for (const char* path : {"/share/a", "/share/a/b/", "/share/ab"})
    ASSERT_EQ(m_config.addFolder({path, std::to_string(strlen(path))}), 0);
  EXPECT_EQ(found("/share/a"), "/share/a");
  EXPECT_EQ(found("/share/a/x.mp4"), "/share/a");
  EXPECT_EQ(found("/share//a//b"), "/share/a/b/");
  EXPECT_EQ(found("/share/a/b/c/d.mp4"), "/share/a/b/");
  EXPECT_EQ(found("/share/a/bc"), "/share/a");
  EXPECT_EQ(found("/share/ab/x"), "/share/ab");
  EXPECT_EQ(found("/share/abc"), "none");
  EXPECT_EQ(found("/share"), "none");
  EXPECT_EQ(found(""), "none");
  EXPECT_EQ(found("/share/a/x.mp4", true), "none");
  EXPECT_EQ(found("/share/a/b", true), "/share/a/b/");
  EXPECT_EQ(m_config.getTarget("/share/a/b/x.mp4"), "11");
  EXPECT_EQ(m_config.getTarget("/share/abc"), "");
}

TEST_F(FolderConfig, NamesOfAnyBytesSurviveTheFile) {
  ASSERT_EQ(init(), 0);
  const std::vector<std::string> names = {
      "/s/a\nb", "/s/\"q\" 'r' <&>", "/s/100%_x", "/s/\xff\xfe", "/s/" + std::string(255, 'n'),
      "/s/ü"};
  for (const std::string& name : names) ASSERT_EQ(m_config.addFolder({name, "4"}), 0);
  std::vector<std::string> wanted = names;
  for (std::string& entry : wanted) entry += ":4:";
  EXPECT_THAT(stored(), testing::UnorderedElementsAreArray(wanted));
}

TEST_F(FolderConfig, AMissingOldFileIsLoggedAndTheNewOneWritten) {
  ASSERT_EQ(init(), 0);
  fs::remove(file());
  EXPECT_EQ(m_config.addFolder({"/share/a", "4"}), 0);
  const std::string text = "Remove " + file() + " failed.\n";
  EXPECT_TRUE(log.has(5, "KxTransFileConfig", text));
  for (const auto& line : log.lines()) {
    if (line.text == text) {
      EXPECT_EQ(line.func, "updateTranscodeXml");
    }
  }
  EXPECT_THAT(stored(), ElementsAre("/share/a:4:"));
}

TEST_F(FolderConfig, AFileThatCannotBeWrittenLeavesTheFolderInMemory) {
  fs::create_directory(m_dir / "sub");
  ASSERT_EQ(m_config.init({library(), m_dir / "sub/x.xml"}), 0);
  fs::remove_all(m_dir / "sub");
  EXPECT_EQ(m_config.addFolder({"/share/a", "4"}), 1);
  EXPECT_EQ(m_config.size(), 1);
  fs::create_directory(m_dir / "sub");
  EXPECT_EQ(m_config.updateTranscodeXml(), 0);
  EXPECT_TRUE(fs::exists(m_dir / "sub/x.xml"));
}

TEST_F(FolderConfig, AFileThatCannotBeMadeIsAFailure) {
  EXPECT_EQ(m_config.init({library(), m_dir / "no/such/folder/x.xml"}), 1);
}

TEST_F(FolderConfig, DumpsEveryFolder) {
  ASSERT_EQ(init(), 0);
  ASSERT_EQ(m_config.addFolder({"/share/a", "4"}), 0);
  ASSERT_EQ(m_config.addFolder({"/share/b", "8"}), 0);
  log.clear();
  m_config.dump();
  EXPECT_EQ(log.count("====== KXTRANSFILESETTING ======\n"), 2U);
  EXPECT_TRUE(log.has("#path: /share/b\n"));
}
