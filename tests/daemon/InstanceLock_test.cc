#include <gtest/gtest.h>
#include <unistd.h>

#include "daemon/InstanceLock.h"
#include "tests/support/TestSupport.h"

using xcoded::InstanceLock;

TEST(InstanceLock, TheSecondIsToldWhoHoldsIt) {
  const kxtest::TempDir dir;
  InstanceLock first;
  ASSERT_TRUE(first.take(dir / "lock")) << first.error();
  first.writePid();
  InstanceLock second;
  EXPECT_FALSE(second.take(dir / "lock"));
  EXPECT_NE(second.error().find("process " + std::to_string(getpid())), std::string::npos)
      << second.error();
}

TEST(InstanceLock, GoesWithItsHolder) {
  const kxtest::TempDir dir;
  {
    InstanceLock first;
    ASSERT_TRUE(first.take(dir / "lock"));
  }
  InstanceLock second;
  EXPECT_TRUE(second.take(dir / "lock")) << second.error();
}

TEST(InstanceLock, AFolderThatIsNotThereIsSaid) {
  InstanceLock lock;
  EXPECT_FALSE(lock.take("/no/such/folder/lock"));
  EXPECT_NE(lock.error().find("cannot open"), std::string::npos);
}
