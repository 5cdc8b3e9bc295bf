#include <gtest/gtest.h>

#include "daemon/Configuration.h"
#include "tests/support/TestSupport.h"

using kxtest::PrivateRoot;
using xcoded::Configuration;

namespace {
constexpr const char* kFile = "/etc/config/medialibrary.conf";
}

TEST(Configuration, EverythingHasADefaultBelowTheRoot) {
  const PrivateRoot root;
  const Configuration conf = Configuration::read({});
  EXPECT_EQ(conf.socketPath, root.path() + "/run/xcode/control.sock");
  EXPECT_EQ(conf.lockPath, root.path() + "/run/xcode/xcoded.lock");
  EXPECT_EQ(conf.dbPath, root.path() + "/var/lib/xcode/jobs.db");
  EXPECT_EQ(conf.cgroupName, "xcode");
  EXPECT_EQ(conf.maxUnits, 0);
  EXPECT_EQ(conf.minFreeMb, -1);
  EXPECT_FALSE(conf.extraTranscode);
}

TEST(Configuration, KeysOfTheServiceAreRead) {
  const PrivateRoot root;
  root.write(kFile, "[TRANSCODESVR]\nMAX_UNITS=3\nALLOW_GROUP=media\nMIN_FREE_MB=5\n"
                    "ENABLE_EXTRA_TRANSOCDE=1\nRECORD_SEC=2\nDB_PATH=/elsewhere/q.db\n"
                    "CGROUP_NAME=mine\n");
  const Configuration conf = Configuration::read({"", "/tmp/own.sock", true});
  EXPECT_EQ(conf.maxUnits, 3);
  EXPECT_EQ(conf.allowGroup, "media");
  EXPECT_EQ(conf.minFreeMb, 5);
  EXPECT_TRUE(conf.extraTranscode);
  EXPECT_EQ(conf.recordTime, std::chrono::seconds(2));
  EXPECT_EQ(conf.dbPath, "/elsewhere/q.db");
  EXPECT_EQ(conf.cgroupName, "mine");
  EXPECT_EQ(conf.socketPath, "/tmp/own.sock");
  EXPECT_EQ(conf.logFile, "");
}

TEST(Configuration, ValuesOutOfRangeAreReplacedAndLogged) {
  const PrivateRoot root;
  root.write(kFile, "[TRANSCODESVR]\nMAX_UNITS=0\nRECORD_SEC=-4\nMAX_CLIENTS=99999\n"
                    "CGROUP_NAME=../escape\n");
  const kxtest::RecordingLog log;
  const Configuration conf = Configuration::read({});
  EXPECT_EQ(conf.maxUnits, 0);
  EXPECT_EQ(conf.recordTime, std::chrono::seconds(10));
  EXPECT_EQ(conf.maxClients, 32);
  EXPECT_EQ(conf.cgroupName, "xcode");
  EXPECT_TRUE(log.hasPart("RECORD_SEC=-4"));
  EXPECT_TRUE(log.hasPart("MAX_CLIENTS=99999"));
  EXPECT_TRUE(log.hasPart("CGROUP_NAME=../escape"));
}
