// What the built library needs of its surroundings, and what its sources include.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

const std::string kLibrary = KX_BUILD_DIR "/lib/libkxtranscode.so";

std::vector<std::string> linesOf(const std::vector<std::string>& argv) {
  const auto out = kxtest::run(argv);
  EXPECT_TRUE(out.has_value()) << argv[0];
  std::istringstream stream(out.value_or(""));
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Rooms that the sources of a room may include from, besides their own and include/.
const std::map<std::string, std::set<std::string>> kBelow = {
    {"frame", {}},
    {"probe", {"frame"}},
    {"jobstore", {"frame", "probe"}},
    {"engines", {"frame", "probe"}},
    {"resources", {"frame", "probe", "jobstore", "engines"}},
    {"watch", {"frame", "jobstore"}},
    {"host", {"frame", "probe"}},
    {"tools", {"frame", "engines", "probe", "host"}},
    {"daemon", {"frame", "engines", "host"}},
    {"cli", {}},
};

}  // namespace

TEST(Library, NeedsOnlyTheStandardRuntimeAndBoostFilesystem) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers bring libraries of their own";
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
  GTEST_SKIP() << "sanitizers bring libraries of their own";
#endif
#endif
  const std::regex needed(R"(\(NEEDED\).*\[(.*)\])");
  const std::regex allowed(
      R"(lib(stdc\+\+|gcc_s|m|c|boost_filesystem|boost_system)\.so\..*|ld-linux.*)");
  size_t count = 0;
  for (const std::string& line : linesOf({"readelf", "-d", kLibrary})) {
    std::smatch match;
    if (!std::regex_search(line, match, needed)) continue;
    ++count;
    EXPECT_TRUE(std::regex_match(match[1].str(), allowed)) << match[1];
  }
  EXPECT_GE(count, 3u);
}

TEST(Library, BindsItsHostsFunctionsWhenTheyAreFirstCalled) {
  bool sawSlot = false;
  for (const std::string& line : linesOf({"readelf", "-W", "-r", kLibrary})) {
    const bool ofHost = std::regex_search(line, std::regex(R"(\s(sqlite3_|av|MyUtil_|MyIDB_)\w+)"));
    if (!ofHost) continue;
    sawSlot = true;
    EXPECT_NE(line.find("JUMP_SLO"), std::string::npos) << line;
  }
  EXPECT_TRUE(sawSlot);
  for (const std::string& line : linesOf({"readelf", "-d", kLibrary}))
    EXPECT_EQ(line.find("BIND_NOW"), std::string::npos) << line;
}

TEST(Library, LoadsWithoutItsHost) {
  EXPECT_TRUE(kxtest::run({KX_BUILD_DIR "/bin/load_alone", kLibrary}).has_value());
}

TEST(Sources, IncludeOnlyFromTheRoomsBelow) {
  const std::regex include(R"re(^#include "([a-z]+)/)re");
  size_t files = 0;
  for (const auto& [room, below] : kBelow) {
    for (const auto& entry : fs::directory_iterator(fs::path(KX_SOURCE_DIR) / room)) {
      const std::string extension = entry.path().extension();
      if (extension != ".cc" && extension != ".h") continue;
      ++files;
      std::istringstream text(kxtest::readFile(entry.path()));
      for (std::string line; std::getline(text, line);) {
        std::smatch match;
        if (!std::regex_search(line, match, include)) continue;
        const std::string target = match[1];
        EXPECT_TRUE(target == room || below.count(target) != 0)
            << entry.path() << " includes from " << target;
      }
    }
  }
  EXPECT_GT(files, 50u);
}
