#include "KxAbstractTranscodeSvr.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AmpCgroup.h"
#include "KxCommand.h"
#include "KxHostPlatform.h"
#include "KxResMgr2.h"
#include "KxTransDBMgr.h"
#include "KxTransFileMonitor.h"
#include "Misc.h"
#include "frame/AnswerRecord.h"
#include "frame/ChildProcess.h"
#include "frame/DiskSpace.h"
#include "frame/UniqueFd.h"
#include "tests/resources/ResourceFixtures.h"

namespace fs = std::filesystem;

namespace {

using kxtest::FakeAccelerator;
using kxtest::job;
using kxtest::readFile;
using kxtest::RecordingLog;
using kxtest::StubRunners;
using kxtest::waitUntil;
using nlohmann::json;

// The least that a host supplies.
class TestServer : public KxAbsTranscodeSvr {
 public:
  using KxAbsTranscodeSvr::m_dbPath;
  using KxAbsTranscodeSvr::m_enableExtraTranscode;
  using KxAbsTranscodeSvr::m_hostPath;
  using KxAbsTranscodeSvr::m_isDaemon;
  using KxAbsTranscodeSvr::m_mediaDB2XmlPath;
  using KxAbsTranscodeSvr::m_mutex;
  using KxAbsTranscodeSvr::m_reserved;
  using KxAbsTranscodeSvr::m_workingPath;
  using KxAbsTranscodeSvr::m_xCodeSvrXmlPath;

  int svrInit() override { return 0; }
  int svrRun() override { return 0; }
  int svrDispatch(int, KxSockData_s&) override { return 0; }
  int dumpJob(int, KxSockData_s&) override { return 0; }
  int addJob(int, KxSockData_s&) override { return 0; }
  int queryJob(int, KxSockData_s&) override { return 0; }
};

// Folder watching with an empty list, for the length of a test.
class FolderList {
 public:
  FolderList() {
    EXPECT_EQ(KxTransFileMonitor::getInstance()->init(0, {m_dir / "m.xml", m_dir / "x.xml"}), 0);
  }
  ~FolderList() {
    KxTransFileMonitor::getInstance()->stopAll();
    KxTransFileMonitor::getInstance()->stopBuildAll();
    KxTransFileMonitor::getInstance()->uninit();
  }
  FolderList(const FolderList&) = delete;
  FolderList& operator=(const FolderList&) = delete;

  std::string text() const {
    std::string lines;
    KxTransFileSetting setting;
    for (unsigned int i = 0; KxTransFileMonitor::getInstance()->getFolder(i, setting) == 0; ++i)
      lines += setting.outputTransFileSetting();
    return lines;
  }

 private:
  kxtest::TempDir m_dir;
};

using Handler = int (KxAbsTranscodeSvr::*)(int, KxSockData_s&);

struct Exchange {
  int returned = -1;
  int read = -1;  // what the client's ReadStruct returned
  KxSockData_s answer{};

  int32_t value(size_t block) const { return recordInt(answer, block); }
  std::string text() const { return {answer.block[4]}; }
  // True when everything but the integers of the first blocks is zero.
  bool hasOnlyIntegers(size_t blocks) const {
    KxSockData_s rest = answer;
    for (size_t block = 0; block < blocks; ++block) setRecordInt(rest, block, 0);
    const auto* bytes = reinterpret_cast<const char*>(&rest);
    return std::all_of(bytes, bytes + sizeof rest, [](char byte) { return byte == '\0'; });
  }
};

KxSockData_s requestOf(int32_t command, int32_t argument = 0) {
  KxSockData_s request{};
  setRecordInt(request, 0, command);
  setRecordInt(request, 1, argument);
  // Whatever else the client sends must not come back.
  memset(request.block[7], 'x', KxSockData_s::kBlockSize);
  return request;
}

class ServerTest : public testing::Test {
 public:
  // The resource manager lives as long as the process and is set up once.
  static void SetUpTestSuite() {
    world = std::make_unique<World>();
    AmpCgroup::setMountRoot(world->dir / "cgroup");
    world->root.write("/etc/platform.conf", "Platform = X86_GENERIC\n");
    ASSERT_EQ(manager().init("server_tests"), 0);
    ASSERT_EQ(KxTransDBMgr::getInstance()->init(world->dir / "jobs.db"), 0);
  }
  static void TearDownTestSuite() {
    KxTransDBMgr::getInstance()->uninit();
    AmpCgroup::setMountRoot("");
    world.reset();
  }

  ServerTest() {
    world->root.write("/etc/config/medialibrary.conf", "[TRANSCODESVR]\nCPU_LIMIT = 50\n");
    world->accel.setCards({});
    EXPECT_EQ(server.sockInit(world->dir / "sock"), 0);
    EXPECT_EQ(server.sockListen(5), 0);
    connect();
    log.clear();
  }
  ~ServerTest() override {
    manager().stopAllUnit();
    EXPECT_TRUE(waitUntil([] {
      manager().checkUnit();
      return manager().getUnitVec().empty();
    }));
    manager().unRegRes(outsider);
  }

 protected:
  void connect() {
    client = std::make_unique<SocketMgr>();
    EXPECT_EQ(client->init(world->dir / "sock", false), 0);
    EXPECT_EQ(client->Connect(20, 0), 0);
    accepted.reset(server.sockAccept());
    ASSERT_TRUE(static_cast<bool>(accepted));
  }

  // Sends one request to a handler and reads one answer; needs a handler that answers.
  Exchange ask(Handler handler, KxSockData_s request) {
    Exchange exchange;
    std::thread serving([&] { exchange.returned = (server.*handler)(accepted.get(), request); });
    exchange.read = client->ReadStruct(&exchange.answer, sizeof exchange.answer, -1);
    serving.join();
    EXPECT_EQ(exchange.read, static_cast<int>(sizeof exchange.answer));
    return exchange;
  }

  // What a handler returns when its client is gone.
  int askAndLeave(Handler handler, int32_t argument = 0) {
    client.reset();
    KxSockData_s request = requestOf(9, argument);
    return (server.*handler)(accepted.get(), request);
  }

  static KxResMgr2& manager() { return *KxResMgr2::getInstance(); }
  // True when nobody holds the manager's lock; a handler that kept it would stop all others.
  static bool managerIsFree() {
    const auto taken = std::make_shared<std::atomic<bool>>(false);
    std::thread other([taken] {
      manager().mutexLock();
      *taken = true;
      manager().mutexUnLock();
    });
    const bool isFree = waitUntil([&taken] { return taken->load(); });
    if (isFree) {
      other.join();
    } else {
      other.detach();
    }
    return isFree;
  }
  static void createUnit(long long id, const std::string& src = "/share/clip.mp4") {
    KxDBTask task = job(id, src);
    ASSERT_EQ(manager().createUnit(task), 0);
  }
  static KxUnitState_e stateOfFirstUnit() { return manager().getUnitVec().at(0).getState(); }
  static std::string configFile() { return world->root.file("/etc/config/medialibrary.conf"); }

  struct World {
    kxtest::PrivateRoot root;
    kxtest::TempDir dir;
    FakeAccelerator accel{root};
  };
  static inline std::unique_ptr<World> world;

  RecordingLog log;
  StubRunners runners;
  TestServer server;
  std::unique_ptr<SocketMgr> client;
  UniqueFd accepted;
  KxRegister outsider;
};

#if defined(__x86_64__)
// The ABI keeps 1 + offset into the table in a pointer to a virtual member.
template <class Member>
size_t slotOf(Member member) {
  ptrdiff_t offset;
  memcpy(&offset, &member, sizeof offset);
  return static_cast<size_t>(offset - 1) / sizeof(void*);
}

TEST(ServerSlots, StandInTheOrderThatHostsWereBuiltFor) {
  using S = KxAbsTranscodeSvr;
  EXPECT_EQ(slotOf(&S::createDaemon), 0U);
  EXPECT_EQ(slotOf(&S::sockInit), 3U) << "slots 1 and 2 are the destructors";
  EXPECT_EQ(slotOf(&S::sockListen), 4U);
  EXPECT_EQ(slotOf(&S::sockAccept), 5U);
  EXPECT_EQ(slotOf(&S::sockReadStruct), 6U);
  EXPECT_EQ(slotOf(static_cast<int (S::*)()>(&S::sockClose)), 7U);
  EXPECT_EQ(slotOf(static_cast<int (S::*)(int)>(&S::sockClose)), 8U);
  EXPECT_EQ(slotOf(&S::svrInit), 9U);
  EXPECT_EQ(slotOf(&S::svrRun), 10U);
  EXPECT_EQ(slotOf(&S::getxCodeSvrXmlPath), 11U);
  EXPECT_EQ(slotOf(&S::getMediaDB2XmlPath), 12U);
  EXPECT_EQ(slotOf(&S::getWorkingPath), 13U);
  EXPECT_EQ(slotOf(&S::getDBPath), 14U);
  EXPECT_EQ(slotOf(static_cast<int (S::*)() const>(&S::getSvrStatus)), 15U);
  EXPECT_EQ(slotOf(&S::setSvrStatus), 16U);
  EXPECT_EQ(slotOf(&S::getPauseSec), 17U);
  EXPECT_EQ(slotOf(&S::setPauseSec), 18U);
  EXPECT_EQ(slotOf(&S::getIsDaemon), 19U);
  EXPECT_EQ(slotOf(&S::isEnableExtraTranscode), 20U);
  EXPECT_EQ(slotOf(&S::setExtraTranscode), 21U);
  EXPECT_EQ(slotOf(&S::isSupportExtraTransocde), 22U);
  EXPECT_EQ(slotOf(&S::checkExtraTranscode), 23U);
  EXPECT_EQ(slotOf(&S::isDiskFull), 24U);
  EXPECT_EQ(slotOf(&S::svrDispatch), 25U);
  const Handler handlers[] = {&S::svrStart,
                              &S::svrStop,
                              &S::svrPause,
                              &S::getSvrStatus,
                              &S::getCGroupCPULimit,
                              &S::setCGroupCPULimit,
                              &S::getCGroupMemLimit,
                              &S::setCGroupMemLimit,
                              &S::dumpRes,
                              &S::dumpUnit,
                              &S::dumpJob,
                              &S::getSvrConf,
                              &S::addFolder,
                              &S::delFolder,
                              &S::updateFolder,
                              &S::buildAll,
                              &S::stopBuildAll,
                              &S::addJob,
                              &S::queryJob,
                              &S::getResource,
                              &S::getTranscodeProcessInfo,
                              &S::getStatus,
                              &S::getExtraTranscodeInfo,
                              &S::setExtraTranscodeInfo};
  size_t slot = 26;
  for (const Handler handler : handlers) EXPECT_EQ(slotOf(handler), slot++);
  EXPECT_EQ(slot, 50U);
}
#endif

TEST_F(ServerTest, BeginsWithEverythingZeroAndEmpty) {
  const TestServer fresh;
  EXPECT_EQ(fresh.getSvrStatus(), SVR_NONE);
  EXPECT_EQ(fresh.getPauseSec(), 0);
  EXPECT_EQ(fresh.getIsDaemon(), 0);
  EXPECT_EQ(fresh.isEnableExtraTranscode(), 0);
  EXPECT_EQ(fresh.m_reserved, 0);
  EXPECT_EQ(fresh.m_hostPath + fresh.getxCodeSvrXmlPath() + fresh.getMediaDB2XmlPath() +
                fresh.getWorkingPath() + fresh.getDBPath(),
            "");
}

TEST_F(ServerTest, HandsOutWhatTheHostFilledIn) {
  server.m_xCodeSvrXmlPath = "/a";
  server.m_mediaDB2XmlPath = "/b";
  server.m_workingPath = "/c";
  server.m_dbPath = "/d";
  server.m_isDaemon = 1;
  server.m_enableExtraTranscode = 1;
  EXPECT_EQ(server.getxCodeSvrXmlPath(), "/a");
  EXPECT_EQ(server.getMediaDB2XmlPath(), "/b");
  EXPECT_EQ(server.getWorkingPath(), "/c");
  EXPECT_EQ(server.getDBPath(), "/d");
  EXPECT_EQ(server.getIsDaemon(), 1);
  EXPECT_EQ(server.isEnableExtraTranscode(), 1);
  EXPECT_EQ(miscMutexLock(server.m_mutex), 0);
  EXPECT_EQ(miscMutexUnLock(server.m_mutex), 0);
}

TEST_F(ServerTest, ReadsOneRecordFromAClientAndClosesIt) {
  KxSockData_s sent = requestOf(24, 5);
  KxSockData_s received{};
  std::thread sending([&] { client->Write(&sent, sizeof sent, -1); });
  EXPECT_EQ(server.sockReadStruct(&received, sizeof received, accepted.get()),
            static_cast<int>(sizeof received));
  sending.join();
  EXPECT_EQ(memcmp(&sent, &received, sizeof sent), 0);
  EXPECT_EQ(server.sockClose(accepted.release()), 0);
  EXPECT_EQ(client->ReadStruct(&received, sizeof received, -1), 0);
}

TEST_F(ServerTest, StartRunsTheUnitsAndStopStopsThem) {
  createUnit(1);
  Exchange exchange = ask(&KxAbsTranscodeSvr::svrStart, requestOf(KX_CMD_START));
  EXPECT_EQ(exchange.returned, 0);
  EXPECT_EQ(exchange.value(0), KX_CMD_START);
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_TRUE(exchange.hasOnlyIntegers(1));
  EXPECT_EQ(server.getSvrStatus(), SVR_RUNNING);
  EXPECT_EQ(stateOfFirstUnit(), UNIT_START);
  EXPECT_TRUE(
      log.has(5, "KxAbstractTranscodeSvr", "server start, we start all current transcode unit\n"));

  exchange = ask(&KxAbsTranscodeSvr::svrStop, requestOf(KX_CMD_STOP));
  EXPECT_EQ(exchange.returned, 0);
  EXPECT_EQ(exchange.value(0), KX_CMD_STOP);
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(server.getSvrStatus(), SVR_STOPPED);
  EXPECT_TRUE(waitUntil([&] { return runners.toldToStop() == 1; }));
  EXPECT_TRUE(
      log.has(5, "KxAbstractTranscodeSvr", "server stop, we stop all current transcode unit\n"));
  EXPECT_TRUE(managerIsFree());
}

TEST_F(ServerTest, PauseForeverTakesAnyNegativeLength) {
  createUnit(1);
  ask(&KxAbsTranscodeSvr::svrStart, requestOf(KX_CMD_START));
  const Exchange exchange = ask(&KxAbsTranscodeSvr::svrPause, requestOf(KX_CMD_PAUSE, -5));
  EXPECT_EQ(exchange.returned, 0);
  EXPECT_EQ(exchange.value(0), KX_CMD_PAUSE);
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(server.getPauseSec(), -1);
  EXPECT_EQ(server.getSvrStatus(), SVR_PAUSED);
  EXPECT_EQ(stateOfFirstUnit(), UNIT_PENDING);
  EXPECT_TRUE(log.has(5, "KxAbstractTranscodeSvr", "pause -1 => pause forever\n"));
}

TEST_F(ServerTest, PauseOfZeroRestartsTheUnits) {
  createUnit(1);
  ask(&KxAbsTranscodeSvr::svrStart, requestOf(KX_CMD_START));
  ask(&KxAbsTranscodeSvr::svrPause, requestOf(KX_CMD_PAUSE, 30));
  EXPECT_EQ(server.getPauseSec(), 30);
  EXPECT_EQ(server.getSvrStatus(), SVR_PAUSED);
  EXPECT_EQ(stateOfFirstUnit(), UNIT_PENDING);
  EXPECT_TRUE(log.has("current pause behavor -> pause background thread for 30 sec, for now "
                      "pause also stop all transcode units\n"));
  const Exchange exchange = ask(&KxAbsTranscodeSvr::svrPause, requestOf(KX_CMD_PAUSE, 0));
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(server.getPauseSec(), 0);
  EXPECT_EQ(server.getSvrStatus(), SVR_RUNNING);
  EXPECT_EQ(stateOfFirstUnit(), UNIT_START);
  EXPECT_TRUE(waitUntil([&] { return runners.begun() == 2; }));
}

TEST_F(ServerTest, HandlersGoThroughTheHostsAccessors) {
  class Host : public TestServer {
   public:
    using TestServer::getSvrStatus;
    int getSvrStatus() const override { return 17; }
    int getPauseSec() const override { return 18; }
    int isDiskFull() override { return 19; }
    void setSvrStatus(int status) override { statuses.push_back(status); }
    void setPauseSec(int seconds) override { pauses.push_back(seconds); }
    std::vector<int> statuses, pauses;
  };
  Host host;
  ASSERT_EQ(host.sockInit(world->dir / "host"), 0);
  for (const int seconds : {-3, 7, 0}) {
    KxSockData_s request = requestOf(KX_CMD_PAUSE, seconds);
    host.svrPause(-1, request);
  }
  EXPECT_EQ(host.statuses, (std::vector<int>{3, 3, 1}));
  EXPECT_EQ(host.pauses, (std::vector<int>{-1, 7, 0}));
  KxSockData_s request = requestOf(KX_CMD_GET_SVR_STATUS);
  std::thread serving([&] { host.getSvrStatus(accepted.get(), request); });
  KxSockData_s answer{};
  EXPECT_EQ(client->ReadStruct(&answer, sizeof answer, -1), static_cast<int>(sizeof answer));
  serving.join();
  EXPECT_EQ(recordInt(answer, 1), 17);
  EXPECT_EQ(recordInt(answer, 2), 18);
  EXPECT_EQ(recordInt(answer, 3), 19);
}

TEST_F(ServerTest, StatusTellsStatePauseAndDisk) {
  server.m_dbPath = "/no/such/volume";
  server.setSvrStatus(SVR_PAUSED);
  server.setPauseSec(-1);
  const Exchange exchange =
      ask(static_cast<Handler>(&KxAbsTranscodeSvr::getSvrStatus), requestOf(6));
  EXPECT_EQ(exchange.returned, 0);
  EXPECT_EQ(exchange.value(0), 6);
  EXPECT_EQ(exchange.value(1), SVR_PAUSED);
  EXPECT_EQ(exchange.value(2), -1);
  EXPECT_EQ(exchange.value(3), 1);
  EXPECT_TRUE(exchange.hasOnlyIntegers(4));
}

TEST_F(ServerTest, ReportsAnswersThatCannotBeWritten) {
  const Handler reporting[] = {&KxAbsTranscodeSvr::svrStart,
                               &KxAbsTranscodeSvr::svrStop,
                               &KxAbsTranscodeSvr::svrPause,
                               static_cast<Handler>(&KxAbsTranscodeSvr::getSvrStatus),
                               &KxAbsTranscodeSvr::getStatus,
                               &KxAbsTranscodeSvr::getResource,
                               &KxAbsTranscodeSvr::getTranscodeProcessInfo,
                               &KxAbsTranscodeSvr::getExtraTranscodeInfo,
                               &KxAbsTranscodeSvr::setExtraTranscodeInfo};
  size_t failures = 0;
  for (const Handler handler : reporting) {
    EXPECT_EQ(askAndLeave(handler), 1) << "handler " << failures;
    EXPECT_EQ(log.count("sockMgr Write() error\n"), ++failures);
  }
}

TEST_F(ServerTest, TakesANegativeDescriptorAsAFailedWrite) {
  KxSockData_s request = requestOf(KX_CMD_PAUSE);
  EXPECT_EQ(server.svrPause(-1, request), 1);
  EXPECT_TRUE(log.has(5, "KxAbstractTranscodeSvr", "sockMgr Write() error\n"));
}

TEST_F(ServerTest, CgroupHandlersSucceedForTheHostEvenWhenTheClientLeft) {
  EXPECT_EQ(askAndLeave(&KxAbsTranscodeSvr::getCGroupCPULimit), 0);
  EXPECT_EQ(askAndLeave(&KxAbsTranscodeSvr::setCGroupCPULimit, 60), 0);
  EXPECT_EQ(askAndLeave(&KxAbsTranscodeSvr::getCGroupMemLimit), 0);
  EXPECT_EQ(askAndLeave(&KxAbsTranscodeSvr::setCGroupMemLimit, 500000), 0);
}

TEST_F(ServerTest, SetsAndTellsTheCpuLimit) {
  Exchange exchange = ask(&KxAbsTranscodeSvr::setCGroupCPULimit, requestOf(8, 25));
  EXPECT_EQ(exchange.returned, 0);
  EXPECT_EQ(exchange.value(0), 8);
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(exchange.value(2), 25);
  exchange = ask(&KxAbsTranscodeSvr::getCGroupCPULimit, requestOf(7));
  EXPECT_EQ(exchange.value(0), 7);
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(exchange.value(2), 25);
  EXPECT_TRUE(exchange.hasOnlyIntegers(3));
  exchange = ask(&KxAbsTranscodeSvr::setCGroupCPULimit, requestOf(8, 250));
  EXPECT_EQ(exchange.value(2), 250) << "the limit that was asked for, not the one in force";
}

TEST_F(ServerTest, SetsAndTellsTheMemoryLimit) {
  Exchange exchange = ask(&KxAbsTranscodeSvr::setCGroupMemLimit, requestOf(10, 262144));
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(exchange.value(2), 262144);
  exchange = ask(&KxAbsTranscodeSvr::getCGroupMemLimit, requestOf(9));
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(exchange.value(2), 262144);
  exchange = ask(&KxAbsTranscodeSvr::setCGroupMemLimit, requestOf(10, 2147483647));
  EXPECT_NE(exchange.value(1), 0) << "more than the machine has";
  EXPECT_EQ(exchange.value(2), 2147483647);
}

TEST_F(ServerTest, DumpsGoIntoTheLogAndAreNotAnswered) {
  createUnit(1, "/share/dumped.mp4");
  client = std::make_unique<SocketMgr>();
  ASSERT_EQ(client->init(world->dir / "sock", false), 0);
  ASSERT_EQ(client->Connect(0, 50000), 0);
  accepted.reset(server.sockAccept());
  KxSockData_s request = requestOf(KX_CMD_DUMP_RES);
  log.clear();
  EXPECT_EQ(server.dumpRes(accepted.get(), request), 0);
  EXPECT_TRUE(log.hasPart("sw_cpu"));
  EXPECT_EQ(server.dumpUnit(accepted.get(), request), 0);
  EXPECT_TRUE(log.hasPart("/share/dumped.mp4"));
  KxSockData_s answer{};
  EXPECT_LT(client->ReadStruct(&answer, sizeof answer, -1), 0) << "the time-out passed";
  EXPECT_TRUE(managerIsFree());
}

TEST_F(ServerTest, ConfigurationWithoutFoldersIsNotASingleByte) {
  KxSockData_s request = requestOf(KX_CMD_GET_SVR_CONF);
  EXPECT_EQ(server.getSvrConf(accepted.get(), request), 0);
  accepted.reset();
  char byte;
  EXPECT_EQ(client->Read(&byte, 1, -1), 0);
}

TEST_F(ServerTest, FolderRequestsReachTheFolderList) {
  FolderList list;
  const std::string a = world->dir / "a";
  const auto asked = [&](Handler handler, int code, const std::string& target) {
    KxSockData_s request = requestOf(code);
    strcpy(request.block[1], a.c_str());
    strcpy(request.block[2], target.c_str());
    const Exchange exchange = ask(handler, request);
    EXPECT_EQ(exchange.returned, 0);
    EXPECT_EQ(exchange.value(0), code);
    EXPECT_TRUE(exchange.hasOnlyIntegers(2));
    connect();
    return exchange.value(1);
  };
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::addFolder, 15, "4"), 1) << "there is no such folder";
  std::filesystem::create_directory(a);
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::addFolder, 15, "4"), 0);
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::addFolder, 15, "4"), 1) << "it is there already";
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::updateFolder, 17, "8"), 0);
  EXPECT_EQ(list.text(), a + ":8\n");
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::buildAll, 18, ""), 0);
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::delFolder, 16, ""), 0);
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::delFolder, 16, ""), 1);
  EXPECT_EQ(asked(&KxAbsTranscodeSvr::updateFolder, 17, "8"), 1);
  EXPECT_EQ(list.text(), "");
}

TEST_F(ServerTest, TheConfigurationIsTheFoldersAsBareText) {
  FolderList list;
  for (const char* name : {"b", "a"}) {
    std::filesystem::create_directory(world->dir / name);
    ASSERT_EQ(KxTransFileMonitor::getInstance()->addFolder(world->dir / name, "4"), 0);
  }
  KxSockData_s request = requestOf(KX_CMD_GET_SVR_CONF);
  EXPECT_EQ(server.getSvrConf(accepted.get(), request), 0);
  accepted.reset();
  std::string text;
  char byte;
  while (client->Read(&byte, 1, -1) == 1) text += byte;
  EXPECT_EQ(text, (world->dir / "a") + ":4\n" + (world->dir / "b") + ":4\n");
}

TEST_F(ServerTest, ScanningIsStartedAndStopped) {
  const FolderList list;
  KxTransFileMonitor* monitor = KxTransFileMonitor::getInstance();
  EXPECT_EQ(ask(&KxAbsTranscodeSvr::buildAll, requestOf(18)).value(1), 0);
  EXPECT_TRUE(monitor->getWatchStatus().isScannerRunning);
  connect();
  const Exchange exchange = ask(&KxAbsTranscodeSvr::stopBuildAll, requestOf(4711));
  EXPECT_EQ(exchange.value(0), 19);
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_FALSE(monitor->getWatchStatus().isScannerRunning);
  EXPECT_EQ(monitor->getWatchStatus().queuedScans, 0);
}

TEST_F(ServerTest, StopBuildAllAnswersNineteenWhateverItWasCalledWith) {
  EXPECT_EQ(ask(&KxAbsTranscodeSvr::stopBuildAll, requestOf(4711)).value(0), 19);
}

TEST_F(ServerTest, ListsUnits) {
  createUnit(7, "/share/fi\xff"
                "lm.mp4");
  createUnit(8);
  ask(&KxAbsTranscodeSvr::svrStart, requestOf(KX_CMD_START));
  ASSERT_TRUE(waitUntil([] { return manager().getUnitVec().at(1).getProgress() == 40; }));
  ASSERT_TRUE(waitUntil([] { return manager().getUnitVec().at(0).getProgress() == 40; }));
  Exchange exchange = ask(&KxAbsTranscodeSvr::getStatus, requestOf(KX_CMD_GET_STATUS));
  EXPECT_EQ(exchange.returned, 0);
  EXPECT_EQ(exchange.value(0), KX_CMD_GET_STATUS);
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(exchange.value(2), 2);
  EXPECT_EQ(exchange.value(3), 2);
  const json rows = json::parse(exchange.text());
  const json expected = {{"id", 7},
                         {"src", "/share/fi\xef\xbf\xbdlm.mp4"},
                         {"state", UNIT_START},
                         {"progress", 40},
                         {"pid", 4711},
                         {"resId", ""}};
  EXPECT_EQ(rows.at(0), expected);
  EXPECT_EQ(rows.at(1).at("id"), 8);

  exchange = ask(&KxAbsTranscodeSvr::getStatus, requestOf(KX_CMD_GET_STATUS, 1));
  EXPECT_EQ(exchange.value(2), 2);
  EXPECT_EQ(exchange.value(3), 1);
  EXPECT_EQ(json::parse(exchange.text()).at(0).at("id"), 8);
}

TEST_F(ServerTest, ListsResourcesAndTheirUsers) {
  world->accel.setCards({"gpu0"});
  Exchange exchange = ask(&KxAbsTranscodeSvr::getResource, requestOf(KX_CMD_GET_RESOURCE));
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(exchange.value(2), 2);
  EXPECT_EQ(exchange.value(3), 2);
  json rows = json::parse(exchange.text());
  EXPECT_EQ(rows.at(0).at("resType"), RES2_SW_CPU);
  EXPECT_EQ(rows.at(1).at("id"), "gpu0");
  EXPECT_EQ(rows.at(1).at("registrations"), 0);

  KxRegInfo info;
  info.m_username = "admin";
  info.m_srcPath = "/share/a.mp4";
  ASSERT_EQ(
      outsider.init(RES2_GPU_INTERNAL, "gpu0", static_cast<KxRegJobType_e>(1), getpid(), info), 0);
  ASSERT_EQ(manager().regRes(outsider), 0);
  exchange = ask(&KxAbsTranscodeSvr::getResource, requestOf(KX_CMD_GET_RESOURCE));
  EXPECT_EQ(json::parse(exchange.text()).at(1).at("registrations"), 1);
  exchange = ask(&KxAbsTranscodeSvr::getTranscodeProcessInfo, requestOf(KX_CMD_GET_PROCESS_INFO));
  EXPECT_EQ(exchange.value(2), 1);
  EXPECT_EQ(exchange.value(3), 1);
  rows = json::parse(exchange.text());
  EXPECT_EQ(rows.at(0).at("pid"), getpid());
  EXPECT_EQ(rows.at(0).at("user"), "admin");
  EXPECT_EQ(rows.at(0).at("src"), "/share/a.mp4");
}

TEST(DiskSpace, OfExactlyTenGibibytesIsEnough) {
  static_assert(diskspace::kReserve == 10737418240);
  EXPECT_TRUE(diskspace::isEnough(10737418240));
  EXPECT_FALSE(diskspace::isEnough(10737418239));
  EXPECT_EQ(diskspace::freeBytes(4096, 2621440), 10737418240);
  EXPECT_EQ(diskspace::freeBytes(65536, uint64_t{1} << 40), int64_t{1} << 56);
}

TEST_F(ServerTest, ADatabaseThatIsNotThereCountsAsAFullDisk) {
  server.m_dbPath = world->dir / "missing/jobs.db";
  EXPECT_EQ(server.isDiskFull(), 1);
  EXPECT_TRUE(log.has(5, "KxAbstractTranscodeSvr",
                      "statvfs() main volume error, errno=2, errStr=No such file or directory\n"));
}

TEST_F(ServerTest, TheDiskIsFullWhenTheVolumeOfTheDatabaseIs) {
  server.m_dbPath = world->dir / "jobs.db";
  struct statvfs info {};
  ASSERT_EQ(statvfs(server.m_dbPath.c_str(), &info), 0);
  const bool enough = diskspace::isEnough(diskspace::freeBytes(info.f_bsize, info.f_bfree));
  EXPECT_EQ(server.isDiskFull(), enough ? 0 : 1);
  EXPECT_EQ(log.hasPart("lack of space\n"), !enough);
  server.m_dbPath = "/proc/self/stat";  // a file system without any free block
  log.clear();
  EXPECT_EQ(server.isDiskFull(), 1);
  EXPECT_TRUE(log.has("freeSpace=0 < 10737418240, lack of space\n"));
}

TEST_F(ServerTest, HardwareTranscodingNeedsTheCpuAndACard) {
  EXPECT_FALSE(server.isSupportExtraTransocde());
  EXPECT_TRUE(log.hasPart("id:sw_cpu resType:1 vendor:"));
  world->accel.setCards({"gpu0"});
  EXPECT_TRUE(server.isSupportExtraTransocde());
  EXPECT_TRUE(log.has(5, "KxAbstractTranscodeSvr",
                      "id:gpu0 resType:2 vendor:vendor devName:device mode:3 devNum:"));
  EXPECT_EQ(log.lines().back().func, "isSupportExtraTransocde");
}

TEST_F(ServerTest, OnlyTheValueOneIsRefusedWithoutHardware) {
  EXPECT_EQ(server.checkExtraTranscode(0), 0);
  EXPECT_EQ(server.checkExtraTranscode(2), 0);
  EXPECT_EQ(server.checkExtraTranscode(-1), 0);
  EXPECT_EQ(server.checkExtraTranscode(1), 1);
  EXPECT_EQ(log.count("Not Suppor Extra Transcode"), 1U);
  world->accel.setCards({"gpu0"});
  EXPECT_EQ(server.checkExtraTranscode(1), 0);
}

int storedSwitch(const std::string& file) {
  return MyUtil_GetKeyInt("TRANSCODESVR", "ENABLE_EXTRA_TRANSOCDE", -99, file.c_str());
}

TEST_F(ServerTest, StoresTheHardwareSwitchInTheConfiguration) {
  EXPECT_EQ(server.setExtraTranscode(2), 0);
  EXPECT_EQ(server.isEnableExtraTranscode(), 2);
  EXPECT_EQ(storedSwitch(configFile()), 2);
  EXPECT_EQ(server.setExtraTranscode(1), 1) << "no hardware";
  EXPECT_EQ(server.isEnableExtraTranscode(), 2);
  EXPECT_EQ(storedSwitch(configFile()), 2);
  world->accel.setCards({"gpu0"});
  EXPECT_EQ(server.setExtraTranscode(1), 0);
  EXPECT_EQ(storedSwitch(configFile()), 1);
  EXPECT_EQ(MyUtil_GetKeyInt("TRANSCODESVR", "CPU_LIMIT", 0, configFile().c_str()), 50)
      << "other keys stay";
}

TEST_F(ServerTest, KeepsTheHardwareSwitchWhenTheConfigurationCannotBeWritten) {
  fs::remove(configFile());
  fs::create_directories(configFile() + "/not-a-file");
  EXPECT_EQ(server.setExtraTranscode(2), 1);
  EXPECT_EQ(server.isEnableExtraTranscode(), 0);
  EXPECT_TRUE(log.has(5, "KxAbstractTranscodeSvr",
                      "set ENABLE_EXTRA_TRANSOCDE=2 to " + configFile() + " fail\n"));
  fs::remove_all(configFile());
}

TEST_F(ServerTest, TellsAndSetsTheHardwareSwitchOverTheSocket) {
  Exchange exchange =
      ask(&KxAbsTranscodeSvr::setExtraTranscodeInfo, requestOf(KX_CMD_SET_EXTRA, 1));
  EXPECT_EQ(exchange.value(0), KX_CMD_SET_EXTRA);
  EXPECT_EQ(exchange.value(1), 1) << "refused";
  world->accel.setCards({"gpu0"});
  exchange = ask(&KxAbsTranscodeSvr::setExtraTranscodeInfo, requestOf(KX_CMD_SET_EXTRA, 1));
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_TRUE(exchange.hasOnlyIntegers(2));
  exchange = ask(&KxAbsTranscodeSvr::getExtraTranscodeInfo, requestOf(KX_CMD_GET_EXTRA));
  EXPECT_EQ(exchange.value(1), 0);
  EXPECT_EQ(exchange.value(2), 1);
  EXPECT_EQ(exchange.value(3), 1);
  EXPECT_TRUE(exchange.hasOnlyIntegers(4));
  world->accel.setCards({});
  ASSERT_TRUE(waitUntil([&] { return !server.isSupportExtraTransocde(); }));
  EXPECT_EQ(ask(&KxAbsTranscodeSvr::getExtraTranscodeInfo, requestOf(25)).value(3), 0);
}

// What the daemon process finds about itself, written where the test can read it.
void describeDaemon(int result, const std::string& file) {
  std::ostringstream text;
  const mode_t mask = umask(022);
  text << "result=" << result << " leader=" << (getsid(0) == getpid()) << " umask=" << mask
       << " cwd=" << fs::current_path().string()
       << " stdin=" << fs::read_symlink("/proc/self/fd/0").string()
       << " stderr=" << fs::read_symlink("/proc/self/fd/2").string() << " sid=" << getsid(0);
  kxtest::writeFile(file + ".new", text.str());
  fs::rename(file + ".new", file);
}

TEST(Daemonising, DetachesFromSessionFolderMaskAndInput) {
  kxtest::TempDir dir;
  const std::string file = dir / "facts";
  const std::string errorOutput = fs::read_symlink("/proc/self/fd/2").string();
  const pid_t pid = fork();
  if (pid == 0) {
    TestServer server;
    describeDaemon(server.createDaemon(), file);
    _exit(0);
  }
  ChildProcess starter = ChildProcess::adopt(pid);
  EXPECT_EQ(starter.waitFor(std::chrono::seconds(20)).value_or(-1), 0)
      << "whoever started the daemon goes on at once";
  ASSERT_TRUE(waitUntil([&] { return fs::exists(file); }));
  const std::string facts = readFile(file);
  EXPECT_EQ(facts.substr(0, facts.find(" sid=")),
            "result=0 leader=0 umask=0 cwd=/ stdin=/dev/null stderr=" + errorOutput);
  EXPECT_NE(facts.substr(facts.find(" sid=")), " sid=" + std::to_string(getsid(0)));
}

}  // namespace
