#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

#include "KxCommand.h"
#include "KxHostPlatform.h"
#include "daemon/Dispatcher.h"
#include "tests/daemon/Records.h"
#include "tests/support/TestSupport.h"

using namespace xcoded;

namespace {

// Names and codes as the exported header has them.
std::map<std::string, int> codesOfHeader() {
  std::istringstream text(kxtest::readFile(KX_SOURCE_DIR "/include/KxCommand.h"));
  std::map<std::string, int> codes;
  for (std::string line; std::getline(text, line);) {
    char name[64];
    int code = 0;
    if (sscanf(line.c_str(), " %63[A-Z_] = %d,", name, &code) == 2) codes[name] = code;
  }
  return codes;
}

bool isRefused(int32_t code, const std::function<void(KxSockData_s&)>& fill) {
  auto request = kxtest::makeRequest(code);
  fill(*request);
  try {
    findCommand(code)->check(*request);
  } catch (const RequestError&) {
    return true;
  }
  return false;
}

bool isNumberRefused(int32_t code, int32_t value) {
  return isRefused(code, [&](KxSockData_s& record) { kxtest::putNumber(record, 1, value); });
}

bool isPathRefused(int32_t code, const std::string& path) {
  return isRefused(code, [&](KxSockData_s& record) { kxtest::putText(record, 1, path); });
}

}  // namespace

TEST(Dispatcher, EveryCodeOfTheHeaderHasOneCommand) {
  const auto codes = codesOfHeader();
  EXPECT_EQ(codes.size(), 35U);
  EXPECT_EQ(commandTable().size(), codes.size());
  for (const auto& [name, code] : codes) EXPECT_NE(findCommand(code), nullptr) << name;
  std::set<int32_t> seen;
  for (const Command& command : commandTable()) {
    EXPECT_TRUE(seen.insert(command.code).second) << command.name;
    EXPECT_NE(command.handler != nullptr, command.job != nullptr) << command.name;
  }
}

TEST(Dispatcher, EveryCodeIsDocumented) {
  const std::string page = kxtest::readFile(KX_SOURCE_DIR "/docs/protocol.md");
  for (const auto& [name, code] : codesOfHeader()) {
    const Command* command = findCommand(code);
    ASSERT_NE(command, nullptr) << name;
    const std::string right = command->right == Right::Everybody ? "everybody" : "change";
    std::string row = "| " + std::to_string(code);
    row.append(" | `").append(name).append("` | ").append(right).append(" |");
    EXPECT_NE(page.find(row), std::string::npos)
        << name << " has no row in docs/protocol.md with its code and right";
  }
}

TEST(Dispatcher, CodesZeroAndOneAndUnknownOnesAreNoCommands) {
  for (const int32_t code : {0, 1, 37, 1000, -1, INT32_MAX, INT32_MIN})
    EXPECT_EQ(findCommand(code), nullptr) << code;
}

TEST(Dispatcher, OnlyStatusAndListsAreOpenToEverybody) {
  const std::set<int32_t> open = {
      KX_CMD_GET_SVR_STATUS, KX_CMD_GET_CPU_LIMIT, KX_CMD_GET_MEM_LIMIT,    KX_CMD_GET_SVR_CONF,
      KX_CMD_QUERY_JOB,      KX_CMD_GET_RESOURCE,  KX_CMD_GET_PROCESS_INFO, KX_CMD_GET_STATUS,
      KX_CMD_GET_EXTRA,      KX_CMD_COUNT_JOB,     KX_CMD_SHOW_JOB,         KX_CMD_WATCH_STATUS};
  for (const Command& command : commandTable())
    EXPECT_EQ(command.right == Right::Everybody, open.count(command.code) == 1) << command.name;
}

TEST(Dispatcher, LimitsOutOfRangeNeverReachTheHandler) {
  for (const int percent : {1, 50, 100}) EXPECT_FALSE(isNumberRefused(8, percent)) << percent;
  for (const int percent : {0, -5, 101}) EXPECT_TRUE(isNumberRefused(8, percent)) << percent;
  const int total = MyUtil_GetTotalMem();
  for (const int limit : {-1, 65536, total - 1}) EXPECT_FALSE(isNumberRefused(10, limit)) << limit;
  for (const int limit : {-2, 0, 65535, total}) EXPECT_TRUE(isNumberRefused(10, limit)) << limit;
  EXPECT_FALSE(isNumberRefused(26, 0));
  EXPECT_FALSE(isNumberRefused(26, 1));
  EXPECT_TRUE(isNumberRefused(26, 2));
}

TEST(Dispatcher, SystemFoldersCannotBeWatched) {
  for (const int32_t code : {KX_CMD_ADD_FOLDER, KX_CMD_DEL_FOLDER, KX_CMD_UPDATE_FOLDER}) {
    for (const char* path :
         {"/", "//", "/proc", "/proc/1", "/sys/x", "/dev/", "relative", "", "/a/../proc"})
      EXPECT_TRUE(isPathRefused(code, path)) << path;
    EXPECT_FALSE(isPathRefused(code, "/share/Video"));
    EXPECT_FALSE(isPathRefused(code, "/process"));
    EXPECT_TRUE(isPathRefused(code, std::string(KxSockData_s::kBlockSize, 'a')));
  }
}
