#include "agent/backends/lxc/ResourceWatchHost.h"

#include <gtest/gtest.h>

namespace kx::agent::lxc {
namespace {

using std::chrono::seconds;

class HostKillsTest : public testing::Test {
protected:
    /// One look a second.
    AlarmTurn look(std::uint64_t host, std::uint64_t containers, std::optional<std::uint64_t> reclaims = {}) {
        now_ += seconds(1);
        return kills_.look({host, reclaims}, containers, now_);
    }

    HostKills kills_{seconds(60)};
    HostKills::TimePoint now_{std::chrono::hours(1)};
};

TEST_F(HostKillsTest, WhatWasKilledBeforeIsNoAlert) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(look(17, 3), AlarmTurn::None);
    }
    EXPECT_EQ(kills_.total(), 0U);
}

TEST_F(HostKillsTest, IsToldWhenASecondLookAgrees) {
    look(17, 0);
    EXPECT_EQ(look(19, 0), AlarmTurn::None);
    EXPECT_EQ(kills_.unexplained(), 2U);
    EXPECT_EQ(look(19, 0), AlarmTurn::Raise);
    EXPECT_EQ(kills_.total(), 2U);
    EXPECT_EQ(kills_.unexplained(), 0U);
    EXPECT_EQ(look(19, 0), AlarmTurn::None) << "once";
}

TEST_F(HostKillsTest, KillsOfContainersAreNotTheHosts) {
    look(17, 5);
    EXPECT_EQ(look(18, 6), AlarmTurn::None);
    EXPECT_EQ(look(20, 8), AlarmTurn::None);
    EXPECT_EQ(look(20, 8), AlarmTurn::None);
    EXPECT_EQ(kills_.unexplained(), 0U);
}

TEST_F(HostKillsTest, AContainersKillMayBeCountedLater) {
    look(17, 0);
    EXPECT_EQ(look(18, 0), AlarmTurn::None);
    EXPECT_EQ(look(18, 1), AlarmTurn::None);
    EXPECT_EQ(look(18, 1), AlarmTurn::None);
    EXPECT_EQ(kills_.total(), 0U);
}

TEST_F(HostKillsTest, AContainersKillMayBeCountedEarlier) {
    look(17, 0);
    EXPECT_EQ(look(17, 1), AlarmTurn::None);
    EXPECT_EQ(look(18, 1), AlarmTurn::None);
    EXPECT_EQ(look(18, 1), AlarmTurn::None);
    EXPECT_EQ(look(19, 1), AlarmTurn::None);
    EXPECT_EQ(look(19, 1), AlarmTurn::Raise) << "and hides none of the host's";
}

TEST_F(HostKillsTest, OnlyWhatBothLooksHaveCounts) {
    look(17, 0);
    look(18, 0);
    EXPECT_EQ(look(21, 0), AlarmTurn::Raise);
    EXPECT_EQ(kills_.total(), 1U);
    EXPECT_EQ(look(21, 0), AlarmTurn::Raise);
    EXPECT_EQ(kills_.total(), 4U);
}

TEST_F(HostKillsTest, AnAccountThatWasAheadAndIsBehindNowIsNoAgreement) {
    look(17, 0);
    look(17, 1);
    EXPECT_EQ(look(20, 1), AlarmTurn::None);
    EXPECT_EQ(look(20, 1), AlarmTurn::Raise);
    EXPECT_EQ(kills_.total(), 2U);
}

TEST_F(HostKillsTest, InAStreamOfContainersKillsOnlyWhatIsOverCounts) {
    look(100, 0);
    std::uint64_t host = 100;
    std::uint64_t containers = 0;
    for (int i = 0; i < 50; ++i) {
        host += 2;  // always a kill ahead of the containers' account
        EXPECT_EQ(look(host, containers), i == 1 ? AlarmTurn::Raise : AlarmTurn::None) << i;
        containers += 2;
    }
    EXPECT_LE(kills_.total(), 2U) << "an account that is always behind is one kill of the host's at most, once";
}

TEST_F(HostKillsTest, KillsOfBeforeTheFirstLookThatAreFoundLaterHideNothing) {
    look(17, 0);
    look(17, 12);  // a container that ran before, with kills of its past
    look(17, 12);
    EXPECT_EQ(look(18, 12), AlarmTurn::None);
    EXPECT_EQ(look(18, 12), AlarmTurn::Raise);
    EXPECT_EQ(kills_.total(), 1U);
}

TEST_F(HostKillsTest, IsOverAfterAMinuteWithout) {
    look(17, 0);
    look(18, 0);
    EXPECT_EQ(look(18, 0), AlarmTurn::Raise);
    for (int i = 0; i < 59; ++i) {
        ASSERT_EQ(look(18, 0), AlarmTurn::None) << i;
    }
    EXPECT_EQ(look(18, 0), AlarmTurn::Clear);
}

TEST_F(HostKillsTest, WithoutAReclaimOfTheHostsMemoryAKillIsForSomeLimitsSake) {
    look(17, 0, 500);
    EXPECT_EQ(look(18, 0, 500), AlarmTurn::None);
    EXPECT_EQ(look(18, 0, 500), AlarmTurn::None);
    EXPECT_EQ(kills_.total(), 0U);
    EXPECT_EQ(look(19, 0, 501), AlarmTurn::None);
    EXPECT_EQ(kills_.unexplained(), 1U) << "the one before is not asked about again";
    EXPECT_EQ(look(19, 0, 501), AlarmTurn::Raise);
    EXPECT_EQ(kills_.total(), 1U);
}

TEST_F(HostKillsTest, AReclaimIsASignForSomeSecondsOnly) {
    look(17, 0, 500);
    look(17, 0, 501);
    for (int i = 0; i < 7; ++i) {
        look(17, 0, 501);
    }
    look(18, 0, 501);
    EXPECT_EQ(look(18, 0, 501), AlarmTurn::Raise) << "killing may take its time";
    for (int i = 0; i < 3; ++i) {
        look(18, 0, 501);
    }
    look(19, 0, 501);
    EXPECT_EQ(look(19, 0, 501), AlarmTurn::None);
    EXPECT_EQ(kills_.total(), 1U);
}

TEST_F(HostKillsTest, ANumberThatStartsAnewIsNoKill) {
    look(17, 5);
    EXPECT_EQ(look(0, 5), AlarmTurn::None);
    EXPECT_EQ(look(0, 5), AlarmTurn::None);
    EXPECT_EQ(look(1, 5), AlarmTurn::None);
    EXPECT_EQ(look(1, 5), AlarmTurn::Raise);
}

}  // namespace
}  // namespace kx::agent::lxc
