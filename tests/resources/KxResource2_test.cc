#include "KxResource2.h"

#include <gtest/gtest.h>

#include "tests/resources/ResourceFixtures.h"

using kxtest::job;
using kxtest::processRegistration;
using kxtest::RecordingLog;
using kxtest::unitRegistration;

namespace {
KxResource2 gpu() {
  KxResource2 resource;
  EXPECT_EQ(resource.init("gpu0", RES2_GPU_INTERNAL, "vendor", "device", 3, "0:1"), 0);
  return resource;
}
}  // namespace

TEST(KxResource2, RefusesAMissingTypeOrId) {
  RecordingLog log;
  KxResource2 resource;
  EXPECT_EQ(resource.init("gpu0", RES2_NONE, "", "", 0, ""), 1);
  EXPECT_EQ(resource.init("", RES2_SW_CPU, "", "", 0, ""), 1);
  EXPECT_TRUE(resource.isEmpty);
  EXPECT_EQ(log.count("KxResource2 init fail\n"), 2U);
  EXPECT_TRUE(log.has(5, "KxResource2", "KxResource2 init fail\n"));
}

TEST(KxResource2, KeepsItsRegistrationsWhenItIsDescribedAnew) {
  KxResource2 resource = gpu();
  KxRegister reg = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(1));
  resource.addRegInfo(reg);
  EXPECT_EQ(resource.init("gpu1", RES2_GPU_EXTERNAL, "v", "d", 9, "n"), 0);
  EXPECT_EQ(resource.id + resource.vendorName + resource.devName + resource.devNumber, "gpu1vdn");
  EXPECT_EQ(resource.modeSupport, 9);
  EXPECT_EQ(resource.resType, RES2_GPU_EXTERNAL);
  EXPECT_EQ(resource.reg.size(), 1U);
  resource.clear();
  EXPECT_TRUE(resource.isEmpty);
  EXPECT_TRUE(resource.reg.empty());
  EXPECT_TRUE(resource == KxResource2());
}

TEST(KxResource2, EqualsItsCopyWithOtherRegistrations) {
  const KxResource2 plain = gpu();
  KxResource2 used = plain;
  KxRegister reg = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(1));
  used.addRegInfo(reg);
  EXPECT_TRUE(plain == used);
  EXPECT_TRUE(plain.reg.empty());
  used.devNumber = "x";
  EXPECT_FALSE(plain == used);
}

TEST(KxResource2, RefusesAnEmptyRegistration) {
  RecordingLog log;
  KxResource2 resource = gpu();
  KxRegister empty;
  EXPECT_EQ(resource.addRegInfo(empty), 1);
  EXPECT_TRUE(resource.reg.empty());
  EXPECT_TRUE(log.has(5, "KxResource2", "regInfo is empty\n"));
}

TEST(KxResource2, KeepsDuplicatesAndRemovesThemTogether) {
  KxResource2 resource = gpu();
  KxRegister reg = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(1));
  KxRegister other = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(2));
  EXPECT_EQ(resource.addRegInfo(reg), 0);
  EXPECT_EQ(resource.addRegInfo(reg), 0);
  EXPECT_EQ(resource.addRegInfo(other), 0);
  EXPECT_EQ(resource.reg.size(), 3U);
  EXPECT_EQ(resource.rmRegInfo(reg), 0);
  ASSERT_EQ(resource.reg.size(), 1U);
  EXPECT_EQ(resource.reg[0].task.param.id, 2);
}

TEST(KxResource2, ARemovalByRegistrationDoesNotLookAtTheJobType) {
  KxResource2 resource = gpu();
  KxRegister reg = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(1));
  resource.addRegInfo(reg);
  KxRegister asked = reg;
  asked.m_jobType = static_cast<KxRegJobType_e>(9);
  KxRegister elsewhere = reg;
  elsewhere.m_resId = "gpu1";
  EXPECT_EQ(resource.rmRegInfo(elsewhere), 0);
  EXPECT_EQ(resource.reg.size(), 1U);
  elsewhere = reg;
  elsewhere.m_resType = RES2_GPU_EXTERNAL;
  EXPECT_EQ(resource.rmRegInfo(elsewhere), 0);
  elsewhere = reg;
  elsewhere.m_pid = 4;
  EXPECT_EQ(resource.rmRegInfo(elsewhere), 0);
  EXPECT_EQ(resource.reg.size(), 1U);
  EXPECT_EQ(resource.rmRegInfo(asked), 0);
  EXPECT_TRUE(resource.reg.empty());
}

TEST(KxResource2, RemovesByPidAndByJobAndKeepsTheOrderOfTheRest) {
  KxResource2 resource = gpu();
  for (int pid : {11, 12, 12, 13}) {
    KxRegister reg = processRegistration("gpu0", RES2_GPU_INTERNAL, pid);
    resource.addRegInfo(reg);
  }
  for (int id : {1, 2, 2}) {
    KxRegister reg = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(id));
    resource.addRegInfo(reg);
  }
  EXPECT_EQ(resource.rmRegInfo(12), 0);
  KxDBTask second = job(2);
  EXPECT_EQ(resource.rmRegInfo(second), 0);
  ASSERT_EQ(resource.reg.size(), 3U);
  EXPECT_EQ(resource.reg[0].m_pid, 11);
  EXPECT_EQ(resource.reg[1].m_pid, 13);
  EXPECT_EQ(resource.reg[2].task.param.id, 1);
  EXPECT_EQ(resource.rmRegInfo(99), 0);
}

TEST(KxResource2, RemovesAllMatchesOfOneOfItsOwnEntries) {
  KxResource2 resource = gpu();
  for (int id : {1, 2, 1, 2, 1}) {
    KxRegister reg = unitRegistration("gpu0", RES2_GPU_INTERNAL, job(id));
    resource.addRegInfo(reg);
  }
  resource.rmRegInfo(resource.reg[0]);
  ASSERT_EQ(resource.reg.size(), 2U);
  EXPECT_EQ(resource.reg[0].task.param.id, 2);
  resource.rmRegInfo(resource.reg[0].task);
  EXPECT_TRUE(resource.reg.empty());
}

TEST(KxResource2, DumpsItselfThenItsRegistrations) {
  RecordingLog log;
  KxResource2 resource = gpu();
  KxRegister reg = processRegistration("gpu0", RES2_GPU_INTERNAL, 5);
  resource.addRegInfo(reg);
  resource.dump();
  const auto texts = log.texts();
  ASSERT_GE(texts.size(), 3U);
  EXPECT_EQ(texts[0], "---KxResource2:\n");
  EXPECT_EQ(texts[1], "isEmpty=false, id=gpu0, resType=2, vendorName=vendor, devName=device, "
                      "modeSupport=3, devNumber=0:1, reg.size()=1\n");
  EXPECT_EQ(texts[2], "---KxRegister:\n");
}
