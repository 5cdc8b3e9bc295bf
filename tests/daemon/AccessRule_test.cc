#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon/AccessRule.h"
#include "frame/UniqueFd.h"

using xcoded::AccessRule;
using xcoded::Peer;

TEST(AccessRule, RootTheOwnUserAndTheGroupMayChangeThings) {
  const AccessRule rule(1000, 77);
  EXPECT_TRUE(rule.mayChange(Peer{1, 0, {0}}));
  EXPECT_TRUE(rule.mayChange(Peer{1, 1000, {1000}}));
  EXPECT_TRUE(rule.mayChange(Peer{1, 1001, {77}}));
  EXPECT_TRUE(rule.mayChange(Peer{1, 1001, {1001, 5, 77}}));
  EXPECT_FALSE(rule.mayChange(Peer{1, 1001, {1001, 5}}));
}

TEST(AccessRule, WithoutAGroupNobodyElseMay) {
  const AccessRule rule(1000, std::nullopt);
  EXPECT_FALSE(rule.mayChange(Peer{1, 1001, {0, 77}}));
}

TEST(AccessRule, ThePeerIsTheProcessAtTheOtherEnd) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const UniqueFd ours(pair[0]);
  const UniqueFd theirs(pair[1]);
  const auto peer = xcoded::peerOf(ours.get());
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->pid, getpid());
  EXPECT_EQ(peer->uid, geteuid());
  ASSERT_FALSE(peer->groups.empty());
  EXPECT_EQ(peer->groups.front(), getegid());
}

TEST(AccessRule, WhatIsNoSocketHasNoPeer) {
  EXPECT_FALSE(xcoded::peerOf(-1));
}

TEST(AccessRule, GroupsAreNamedOrNumbered) {
  EXPECT_EQ(xcoded::groupNumber("1234"), 1234U);
  EXPECT_EQ(xcoded::groupNumber("root"), 0U);
  EXPECT_FALSE(xcoded::groupNumber(""));
  EXPECT_FALSE(xcoded::groupNumber("no such group"));
}
