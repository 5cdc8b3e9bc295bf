#include "host/IniFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <string>

#include "KxHostPlatform.h"
#include "tests/support/TestSupport.h"

using kxtest::readFile;
using kxtest::TempDir;
using kxtest::writeFile;

namespace {

class IniFile : public testing::Test {
 protected:
  std::string file() const { return m_dir / "service.conf"; }
  void content(const std::string& text) const { writeFile(file(), text); }

  // The value of a key, or "<missing>".
  std::string value(const char* section, const char* key) const {
    char buffer[64];
    const int found =
        MyUtil_GetKeyStr(section, key, "<missing>", buffer, sizeof buffer, file().c_str());
    EXPECT_EQ(found != 0, std::string(buffer) != "<missing>");
    return buffer;
  }
  int set(const char* section, const char* key, int number) const {
    return MyUtil_SetKeyInt(section, key, number, file().c_str());
  }

  TempDir m_dir;
};

}  // namespace

TEST_F(IniFile, ReadsAKeyOfASection) {
  content("[A]\nk=1\n[B]\nk=2\n");
  EXPECT_EQ(value("A", "k"), "1");
  EXPECT_EQ(value("B", "k"), "2");
}

TEST_F(IniFile, ReadsKeysBeforeAnySectionForANullOrEmptySection) {
  content("Platform = ARM_RTK\n[A]\nPlatform=other\n");
  EXPECT_EQ(value(nullptr, "Platform"), "ARM_RTK");
  EXPECT_EQ(value("", "Platform"), "ARM_RTK");
}

TEST_F(IniFile, CopiesTheDefaultWhenFileSectionOrKeyIsMissing) {
  EXPECT_EQ(value("A", "k"), "<missing>");
  content("[A]\nk=1\n");
  EXPECT_EQ(value("B", "k"), "<missing>");
  EXPECT_EQ(value("A", "other"), "<missing>");
}

TEST_F(IniFile, ComparesNamesCaseSensitively) {
  content("[A]\nkey=1\n");
  EXPECT_EQ(value("a", "key"), "<missing>");
  EXPECT_EQ(value("A", "Key"), "<missing>");
}

TEST_F(IniFile, TakesTheFirstOfSeveralEqualKeys) {
  content("[A]\nk=1\nk=2\n[B]\nx=9\n[A]\nk=3\n");
  EXPECT_EQ(value("A", "k"), "1");
}

TEST_F(IniFile, TrimsBlanksAndOnePairOfQuotes) {
  content("[A]\n  a\t = \t one two  \r\nb=\" three \"\nc='four'\nd=\"open\n");
  EXPECT_EQ(value("A", "a"), "one two");
  EXPECT_EQ(value("A", "b"), " three ");
  EXPECT_EQ(value("A", "c"), "four");
  EXPECT_EQ(value("A", "d"), "\"open");
}

TEST_F(IniFile, ReadsAnEmptyValueAsFound) {
  content("[A]\nk=\n");
  EXPECT_EQ(value("A", "k"), "");
}

TEST_F(IniFile, AlwaysEndsTheTextWithinTheBuffer) {
  content("[A]\nk=abcdefgh\n");
  char buffer[4] = "xyz";
  EXPECT_NE(MyUtil_GetKeyStr("A", "k", "", buffer, sizeof buffer, file().c_str()), 0);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(MyUtil_GetKeyStr("A", "no", "longer default", buffer, sizeof buffer, file().c_str()),
            0);
  EXPECT_STREQ(buffer, "lon");
  EXPECT_EQ(MyUtil_GetKeyStr("A", "no", nullptr, buffer, sizeof buffer, file().c_str()), 0);
  EXPECT_STREQ(buffer, "");
}

TEST_F(IniFile, ReadsNumbersWithADefault) {
  content("[A]\na=50\nb=-1\nc=word\nd=\ne=99999999999999999999\nf= 7 ; percent\n");
  const auto number = [&](const char* key) {
    return MyUtil_GetKeyInt("A", key, 42, file().c_str());
  };
  EXPECT_EQ(number("a"), 50);
  EXPECT_EQ(number("b"), -1);
  EXPECT_EQ(number("c"), 42);
  EXPECT_EQ(number("d"), 42);
  EXPECT_EQ(number("e"), INT_MAX);
  EXPECT_EQ(number("f"), 7);
  EXPECT_EQ(number("missing"), 42);
}

TEST_F(IniFile, SurvivesBinaryContent) {
  content(std::string("\0\xff[\n]==\n[", 9));
  EXPECT_EQ(value("A", "k"), "<missing>");
}

TEST_F(IniFile, CreatesFileAndSectionWhenWriting) {
  EXPECT_NE(set("TRANSCODESVR", "CPU_LIMIT", 30), 0);
  EXPECT_EQ(readFile(file()), "[TRANSCODESVR]\nCPU_LIMIT=30\n");
  EXPECT_NE(set("OTHER", "X", -1), 0);
  EXPECT_EQ(readFile(file()), "[TRANSCODESVR]\nCPU_LIMIT=30\n[OTHER]\nX=-1\n");
}

TEST_F(IniFile, ChangesOnlyTheOneLine) {
  content("# head\nP=1\n\n[A]\n; note\n k = 1\nother=x\n\n[B]\nk=5\n# tail\n");
  EXPECT_NE(set("A", "k", 7), 0);
  EXPECT_NE(set("A", "new", 8), 0);
  EXPECT_NE(set("", "Q", 9), 0);
  EXPECT_EQ(readFile(file()),
            "# head\nP=1\nQ=9\n\n[A]\n; note\nk=7\nother=x\nnew=8\n\n[B]\nk=5\n# tail\n");
}

TEST_F(IniFile, WritesTheKeyThatIsRead) {
  content("[A]\nx=1\n[B]\n[A]\nk=2\nk=3");
  EXPECT_NE(set("A", "k", 4), 0);
  EXPECT_EQ(value("A", "k"), "4");
  EXPECT_EQ(readFile(file()), "[A]\nx=1\n[B]\n[A]\nk=4\nk=3\n");
}

TEST_F(IniFile, KeepsOwnerAndMode) {
  content("[A]\nk=1\n");
  ASSERT_EQ(chmod(file().c_str(), 0640), 0);
  const bool otherOwner = geteuid() == 0 && chown(file().c_str(), 12, 34) == 0;
  EXPECT_NE(set("A", "k", 2), 0);
  struct stat info = {};
  ASSERT_EQ(stat(file().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640U);
  if (otherOwner) {
    EXPECT_EQ(info.st_uid, 12U);
    EXPECT_EQ(info.st_gid, 34U);
  }
}

TEST_F(IniFile, LeavesALinkToTheFileInPlace) {
  const std::string real = m_dir / "real.conf";
  writeFile(real, "[A]\nk=1\n");
  ASSERT_EQ(symlink(real.c_str(), file().c_str()), 0);
  EXPECT_NE(set("A", "k", 2), 0);
  EXPECT_TRUE(std::filesystem::is_symlink(file()));
  EXPECT_EQ(readFile(real), "[A]\nk=2\n");
}

TEST_F(IniFile, LeavesNoTemporaryFileAndFailsWhenItCannotWrite) {
  EXPECT_NE(set("A", "k", 1), 0);
  EXPECT_EQ(MyUtil_SetKeyInt("A", "k", 1, (m_dir / "no/such/file").c_str()), 0);
  EXPECT_EQ(MyUtil_SetKeyInt("A", "k", 1, m_dir.path().c_str()), 0);
  EXPECT_EQ(MyUtil_SetKeyInt("A", nullptr, 1, file().c_str()), 0);
  const std::filesystem::directory_iterator entries(m_dir.path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}
