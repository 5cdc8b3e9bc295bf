#include "KxRegister.h"

#include <gtest/gtest.h>

#include "tests/resources/ResourceFixtures.h"

using kxtest::job;
using kxtest::RecordingLog;

namespace {
constexpr auto kOther = static_cast<KxRegJobType_e>(7);

KxRegInfo someInfo() {
  KxRegInfo info;
  info.m_srcPath = "/share/a.mp4";
  info.m_srcWidth = 1920;
  info.m_srcHeight = 1080;
  info.m_pid = 12;
  info.m_startTime = 1700000000;
  info.m_configMask = 5;
  info.m_ip = "10.0.0.1";
  info.m_username = "anna";
  info.m_tag = "web";
  return info;
}
}  // namespace

TEST(KxRegInfo, IsBornAndClearedToNothing) {
  KxRegInfo info = someInfo();
  info.clear();
  const KxRegInfo fresh;
  for (const KxRegInfo& one : {info, fresh}) {
    EXPECT_EQ(one.m_srcPath + one.m_ip + one.m_username + one.m_tag, "");
    EXPECT_EQ(one.m_srcWidth, 0);
    EXPECT_EQ(one.m_srcHeight, 0);
    EXPECT_EQ(one.m_pid, 0);
    EXPECT_EQ(one.m_startTime, 0);
    EXPECT_EQ(one.m_configMask, 0);
  }
}

TEST(KxRegInfo, DumpsItsFieldsOnOneLine) {
  RecordingLog log;
  someInfo().dump();
  EXPECT_TRUE(log.has(5, "KxRegister",
                      "m_srcPath=/share/a.mp4, m_srcWidth=1920, m_srcHeight=1080, m_pid=12, "
                      "m_startTime=1700000000, m_configMask=5, m_ip=10.0.0.1, m_username=anna, "
                      "m_tag=web\n"));
}

TEST(KxRegister, AnOutsideProcessNeedsAPositivePid) {
  RecordingLog log;
  KxRegister reg;
  EXPECT_EQ(reg.init(RES2_SW_CPU, "sw_cpu", kOther, 0, KxRegInfo()), 1);
  EXPECT_EQ(reg.init(RES2_SW_CPU, "sw_cpu", kOther, -1, KxRegInfo()), 1);
  EXPECT_TRUE(reg.isEmpty);
  EXPECT_EQ(log.count("KxRegister init fail\n"), 2U);
  EXPECT_EQ(reg.init(RES2_SW_CPU, "sw_cpu", kOther, 1, someInfo()), 0);
  EXPECT_FALSE(reg.isEmpty);
  EXPECT_EQ(reg.m_pid, 1);
  EXPECT_EQ(reg.m_jobType, kOther);
  EXPECT_EQ(reg.m_resType, RES2_SW_CPU);
  EXPECT_EQ(reg.m_resId, "sw_cpu");
  EXPECT_EQ(reg.regInfo.m_username, "anna");
  EXPECT_TRUE(reg.task.isEmpty);
}

TEST(KxRegister, RefusesMissingTypesAndIdsAndKeepsWhatItHolds) {
  KxRegister reg;
  ASSERT_EQ(reg.init(RES2_ARM_RK, "arm.rk", kOther, 5, someInfo()), 0);
  EXPECT_EQ(reg.init(RES2_NONE, "x", kOther, 6, KxRegInfo()), 1);
  EXPECT_EQ(reg.init(RES2_SW_CPU, "", kOther, 6, KxRegInfo()), 1);
  EXPECT_EQ(reg.init(RES2_SW_CPU, "x", REGJOB_NONE, 6, KxRegInfo()), 1);
  EXPECT_EQ(reg.init(RES2_NONE, "x", REGJOB_UNIT, job(1), KxRegInfo()), 1);
  EXPECT_EQ(reg.init(RES2_SW_CPU, "", REGJOB_UNIT, job(1), KxRegInfo()), 1);
  EXPECT_EQ(reg.init(RES2_SW_CPU, "x", REGJOB_NONE, job(1), KxRegInfo()), 1);
  EXPECT_EQ(reg.m_resId, "arm.rk");
  EXPECT_EQ(reg.m_pid, 5);
  EXPECT_EQ(reg.regInfo.m_tag, "web");
}

TEST(KxRegister, AJobRegistrationNeedsAJobAndHasNoPid) {
  RecordingLog log;
  KxRegister reg;
  EXPECT_EQ(reg.init(RES2_SW_CPU, "sw_cpu", REGJOB_UNIT, KxDBTask(), KxRegInfo()), 1);
  EXPECT_TRUE(log.has(5, "KxRegister", "KxRegister init fail\n"));
  EXPECT_EQ(reg.init(RES2_SW_CPU, "sw_cpu", kOther, 77, KxRegInfo()), 0);
  EXPECT_EQ(reg.init(RES2_ARM_RTK, "arm.rtk", REGJOB_UNIT, job(9), someInfo()), 0);
  EXPECT_EQ(reg.m_pid, -1);
  EXPECT_EQ(reg.task.param.id, 9);
  EXPECT_EQ(reg.m_resType, RES2_ARM_RTK);
  EXPECT_EQ(reg.regInfo.m_srcWidth, 1920);
}

TEST(KxRegister, MayBeSetUpAgainWithItsOwnJob) {
  KxRegister reg = kxtest::unitRegistration("sw_cpu", RES2_SW_CPU, job(4, "/share/x"));
  EXPECT_EQ(reg.init(RES2_ARM_RK, "arm.rk", REGJOB_UNIT, reg.task, KxRegInfo()), 0);
  EXPECT_EQ(reg.task.param.src, "/share/x");
}

TEST(KxRegister, EqualityLeavesOutTheDetailsOnly) {
  const KxRegister base = kxtest::unitRegistration("sw_cpu", RES2_SW_CPU, job(1));
  KxRegister other = base;
  other.regInfo = someInfo();
  EXPECT_TRUE(base == other);
  other = base;
  other.m_jobType = kOther;
  EXPECT_FALSE(base == other);
  other = base;
  other.m_resType = RES2_ARM_RK;
  EXPECT_FALSE(base == other);
  other = base;
  other.m_resId = "SW_CPU";
  EXPECT_FALSE(base == other);
  other = base;
  other.m_pid = 3;
  EXPECT_FALSE(base == other);
  other = base;
  other.task = job(2);
  EXPECT_FALSE(base == other);
  other = base;
  other.isEmpty = true;
  EXPECT_FALSE(base == other);
}

TEST(KxRegister, ClearsToTheStateItWasBornIn) {
  KxRegister reg = kxtest::processRegistration("sw_cpu", RES2_SW_CPU, 3);
  reg.clear();
  EXPECT_TRUE(reg == KxRegister());
  EXPECT_EQ(reg.m_pid, -1);
  EXPECT_EQ(reg.m_jobType, REGJOB_NONE);
  EXPECT_EQ(reg.m_resType, RES2_NONE);
}

TEST(KxRegister, DumpsItselfThenTheJobThenTheDetails) {
  RecordingLog log;
  KxRegister reg = kxtest::unitRegistration("sw_cpu", RES2_SW_CPU, job(1));
  reg.dump();
  const auto texts = log.texts();
  ASSERT_GE(texts.size(), 4U);
  EXPECT_EQ(texts[0], "---KxRegister:\n");
  EXPECT_EQ(texts[1], "m_jobType=2, m_resType=1, m_resId=sw_cpu, m_pid=-1\n");
  EXPECT_EQ(texts[2], "---KxDBTask:\n");
  EXPECT_EQ(texts.back().rfind("m_srcPath=", 0), 0U);
}
