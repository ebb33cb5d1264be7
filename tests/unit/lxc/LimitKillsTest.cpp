#include "agent/backends/lxc/LimitKills.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

/// Over files that take the place of the kernel's.
class LimitKillsTest : public testing::Test {
protected:
    void v2(const std::string& name, int ooms, int kills, int groupKills = 0) {
        folder_.write(name + "/memory.events", "oom " + std::to_string(ooms) + "\noom_kill " + std::to_string(kills) +
                                                   "\noom_group_kill " + std::to_string(groupKills) + "\n");
    }

    /// @param hits of the limit; negative: it has none
    void v1(const std::string& name, int kills, int hits = -1) {
        folder_.write(name + "/memory.oom_control", "oom_kill_disable 0\noom_kill " + std::to_string(kills) + "\n");
        folder_.write(name + "/memory.limit_in_bytes", hits < 0 ? "9223372036854771712\n" : "1000000\n");
        folder_.write(name + "/memory.failcnt", std::to_string(std::max(hits, 0)) + "\n");
    }

    LimitKills ofV2() const { return LimitKills({folder_.path(), true}); }
    LimitKills ofV1() const { return LimitKills({folder_.path(), false}); }

    const test::TemporaryFolder folder_;
};

TEST_F(LimitKillsTest, UnderV2AKillThatAHitOfALimitLedToIsTheLimits) {
    v2("system.slice", 5, 9);
    LimitKills kills = ofV2();
    EXPECT_EQ(kills.takeNew({}), 0U) << "what has happened before";
    v2("system.slice", 7, 11);
    EXPECT_EQ(kills.takeNew({}), 2U);
    EXPECT_EQ(kills.takeNew({}), 0U);
}

TEST_F(LimitKillsTest, UnderV2AKillWithoutAHitIsTheHosts) {
    v2("system.slice", 5, 5);
    LimitKills kills = ofV2();
    v2("system.slice", 5, 6);
    EXPECT_EQ(kills.takeNew({}), 0U);
    v2("system.slice", 6, 9);
    EXPECT_EQ(kills.takeNew({}), 1U) << "of three one";
}

TEST_F(LimitKillsTest, UnderV2AHitMayKillAWholeCgroup) {
    v2("system.slice", 5, 5);
    LimitKills kills = ofV2();
    v2("system.slice", 6, 25, 1);
    EXPECT_EQ(kills.takeNew({}), 20U);
}

TEST_F(LimitKillsTest, ContainersCountForThemselves) {
    for (const char* name : {"lxc.payload.web", "lxc", "lxc/db", "lxc/other"}) {
        v2(name, 0, 0);
    }
    LimitKills kills = ofV2();
    v2("lxc.payload.web", 1, 1);
    v2("lxc", 7, 7);  // with those below it
    v2("lxc/db", 3, 3);
    v2("lxc/other", 4, 4);
    EXPECT_EQ(kills.takeNew({folder_ / "lxc.payload.web", folder_ / "lxc/db"}), 4U);
}

TEST_F(LimitKillsTest, UnderV1AKillIsTheLimitsWhereOneIsThatWasHit) {
    for (const char* name : {"free", "roomy", "docker", "docker/inner"}) {
        v1(name, 0);
    }
    LimitKills kills = ofV1();
    v1("free", 1);
    EXPECT_EQ(kills.takeNew({}), 0U) << "it has no limit";
    v1("roomy", 1, 0);
    EXPECT_EQ(kills.takeNew({}), 0U) << "it has not hit its limit";
    v1("docker", 0, 12);
    v1("docker/inner", 2);
    EXPECT_EQ(kills.takeNew({}), 2U) << "one above it has";
    v1("docker/inner", 3);
    EXPECT_EQ(kills.takeNew({folder_ / "docker"}), 0U) << "a container with all below it";
}

TEST_F(LimitKillsTest, ACgroupThatComesAgainUnderTheSameNameCountsFromNothing) {
    v1("docker", 5, 1);
    LimitKills kills = ofV1();
    v1("docker", 2, 1);
    EXPECT_EQ(kills.takeNew({}), 2U);
    std::filesystem::remove_all(folder_ / "docker");
    EXPECT_EQ(kills.takeNew({}), 0U);
    v1("docker", 3, 1);
    EXPECT_EQ(kills.takeNew({}), 3U);
}

TEST_F(LimitKillsTest, WithoutAHierarchyThereAreNone) {
    LimitKills nowhere({});
    EXPECT_EQ(nowhere.takeNew({}), 0U);
}

}  // namespace
}  // namespace kx::agent::lxc
