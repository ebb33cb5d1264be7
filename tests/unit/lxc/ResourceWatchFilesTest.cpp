// Files with the texts that kernels write, in a folder of the test's own.
#include "agent/backends/lxc/ResourceWatchFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

class ResourceFilesTest : public testing::Test {
protected:
    ResourceFolder v1() const { return {folder_.path(), false}; }
    ResourceFolder v2() const { return {folder_.path(), true}; }

    test::TemporaryFolder folder_;
};

// ---- where the cgroups are ----

constexpr const char* kMounts =
    "30 29 0:26 / /sys/fs/cgroup/memory rw,relatime shared:9 - cgroup cgroup rw,memory\n"
    "31 29 0:27 / /sys/fs/cgroup/pids rw,relatime shared:10 - cgroup cgroup rw,pids\n"
    "32 29 0:28 / /sys/fs/cgroup/cpu,cpuacct rw,relatime shared:11 - cgroup cgroup rw,cpu,cpuacct\n";

TEST_F(ResourceFilesTest, V1HasAHierarchyForEach) {
    const auto folders = resourceFoldersOf(cgroupMountsIn(kMounts),
                                           "9:memory:/lxc.payload.web/system.slice\n8:pids:/lxc.payload.web-1\n"
                                           "7:cpu,cpuacct:/lxc.payload.web\n0::/lxc.payload.web\n");
    EXPECT_EQ(folders.memory, (ResourceFolder{"/sys/fs/cgroup/memory/lxc.payload.web", false}));
    EXPECT_EQ(folders.pids, (ResourceFolder{"/sys/fs/cgroup/pids/lxc.payload.web-1", false}));
}

TEST_F(ResourceFilesTest, AContainerInTheRootCgroupHasNoneOfItsOwn) {
    EXPECT_EQ(resourceFoldersOf(cgroupMountsIn(kMounts), "9:memory:/\n8:pids:/\n"), ResourceFolders());
    EXPECT_EQ(resourceFoldersOf(cgroupMountsIn(kMounts), ""), ResourceFolders());
    EXPECT_EQ(resourceFoldersOf({}, "9:memory:/lxc.payload.web\n"), ResourceFolders());
}

TEST_F(ResourceFilesTest, AProcessThatHasEndedHasNone) {
    EXPECT_EQ(resourceFoldersOf(cgroupMountsIn(kMounts), -1), ResourceFolders());
}

TEST_F(ResourceFilesTest, V2CountsWhereItHasTheController) {
    folder_.write("lxc.payload.web/memory.events", "");
    const auto mounts = cgroupMountsIn("30 29 0:26 / " + folder_.path() + " rw - cgroup2 cgroup2 rw\n");
    const auto folders = resourceFoldersOf(mounts, "0::/lxc.payload.web/init.scope\n");
    EXPECT_EQ(folders.memory, (ResourceFolder{folder_ / "lxc.payload.web", true}));
    EXPECT_EQ(folders.pids, ResourceFolder()) << "no pids.events, so no controller";
}

TEST_F(ResourceFilesTest, WhereBothHaveTheControllerV1HasTheProcesses) {
    folder_.write("lxc.payload.web/memory.events", "");
    const auto mounts =
        cgroupMountsIn("29 1 0:25 / " + folder_.path() + " rw - cgroup2 cgroup2 rw\n" + std::string(kMounts));
    const auto folders = resourceFoldersOf(mounts, "9:memory:/lxc.payload.web\n0::/lxc.payload.web\n");
    EXPECT_EQ(folders.memory, (ResourceFolder{"/sys/fs/cgroup/memory/lxc.payload.web", false}));
}

// ---- what they say ----

TEST_F(ResourceFilesTest, V1IsRead) {
    folder_.write("memory.limit_in_bytes", "67108864\n");
    folder_.write("memory.usage_in_bytes", "60000000\n");
    folder_.write("memory.stat",
                  "cache 1\ninactive_file 5\nactive_file 6\nhierarchical_memory_limit 67108864\n"
                  "total_cache 1\ntotal_inactive_file 10000000\ntotal_active_file 20000000\n");
    folder_.write("memory.failcnt", "17\n");
    folder_.write("memory.oom_control", "oom_kill_disable 0\nunder_oom 0\noom_kill 3\n");
    const auto use = readWorkingSet(v1());
    ASSERT_TRUE(use);
    EXPECT_EQ(use->limit, 67108864U);
    EXPECT_EQ(use->used, 30000000U) << "with what is in the cgroups below it";
    EXPECT_EQ(readMemoryUsage(v1()), 60000000U);
    EXPECT_EQ(readMemoryHits(v1()), 17U);
    EXPECT_EQ(readKills(v1()), 3U);
}

TEST_F(ResourceFilesTest, V2IsRead) {
    folder_.write("memory.max", "67108864\n");
    folder_.write("memory.current", "60000000\n");
    folder_.write("memory.stat",
                  "anon 1\nfile 2\ninactive_anon 9\nactive_anon 9\ninactive_file 10000000\nactive_file 20000000\n"
                  "slab_reclaimable 5000000\nslab_unreclaimable 7\n");
    folder_.write("memory.events", "low 0\nhigh 4\nmax 17\noom 5\noom_kill 3\noom_group_kill 0\n");
    const auto use = readWorkingSet(v2());
    ASSERT_TRUE(use);
    EXPECT_EQ(use->used, 25000000U);
    EXPECT_EQ(readMemoryHits(v2()), 17U);
    EXPECT_EQ(readKills(v2()), 3U);
}

TEST_F(ResourceFilesTest, WithoutALimitThereIsNoLevel) {
    folder_.write("memory.limit_in_bytes", "9223372036854771712\n");
    folder_.write("memory.usage_in_bytes", "1000\n");
    folder_.write("memory.max", "max\n");
    folder_.write("memory.current", "1000\n");
    folder_.write("pids.max", "max\n");
    folder_.write("pids.current", "10\n");
    EXPECT_FALSE(readWorkingSet(v1()));
    EXPECT_FALSE(readWorkingSet(v2()));
    EXPECT_FALSE(readPidsLimit(folder_.path()));
}

TEST_F(ResourceFilesTest, MoreThatCanBeDroppedThanIsUsedIsNothingUsed) {
    folder_.write("memory.max", "1000\n");
    folder_.write("memory.current", "10\n");
    folder_.write("memory.stat", "inactive_file 20\n");
    EXPECT_EQ(readWorkingSet(v2())->used, 0U);
}

TEST_F(ResourceFilesTest, ALimitOfNothingIsUsedUp) {
    EXPECT_EQ((ResourceUse{0, 3}).level(), 1.0);
    EXPECT_EQ((ResourceUse{4, 3}).level(), 0.75);
}

TEST_F(ResourceFilesTest, PidsAreRead) {
    folder_.write("pids.max", "64\n");
    folder_.write("pids.current", "48\n");
    folder_.write("pids.events", "max 12\n");
    EXPECT_EQ(readPidsLimit(folder_.path()), 64U);
    EXPECT_EQ(readPids(folder_.path()), 48U);
    EXPECT_EQ(readPidsHits(folder_.path()), 12U);
}

TEST_F(ResourceFilesTest, InnerCgroupsAreNoticed) {
    folder_.write("pids.max", "64\n");
    EXPECT_FALSE(hasInnerCgroups(folder_.path()));
    std::filesystem::create_directories(folder_ / "service");
    EXPECT_TRUE(hasInnerCgroups(folder_.path()));
    EXPECT_FALSE(hasInnerCgroups("/nowhere"));
}

TEST_F(ResourceFilesTest, TheHostsKillsAreRead) {
    folder_.write("vmstat", "pgfault 5\noom_kill_of_another_kind 9\noom_kill 7\nnuma_hit 1\n");
    ASSERT_TRUE(readHostMemory(folder_ / "vmstat"));
    EXPECT_EQ(readHostMemory(folder_ / "vmstat")->kills, 7U);
    EXPECT_FALSE(readHostMemory(folder_ / "vmstat")->reclaims) << "not counted";
    folder_.write("vmstat", "allocstall_dma 1\nallocstall_normal 20\nallocstall_movable 300\noom_kill 7\n");
    EXPECT_EQ(readHostMemory(folder_ / "vmstat")->reclaims, 321U);
    folder_.write("vmstat", "pgfault 5\n");
    EXPECT_FALSE(readHostMemory(folder_ / "vmstat")) << "older kernels do not count them";
}

TEST_F(ResourceFilesTest, WhatIsNotThereOrNotANumberIsNothing) {
    EXPECT_FALSE(readWorkingSet(v1()));
    EXPECT_FALSE(readMemoryHits(v2()));
    EXPECT_FALSE(readKills(v1()));
    EXPECT_FALSE(readKills({}));
    EXPECT_FALSE(readPids(""));
    EXPECT_FALSE(readPidsLimit(folder_.path()));
    EXPECT_FALSE(readHostMemory("/nowhere/vmstat"));
    folder_.write("memory.failcnt", "many\n");
    folder_.write("memory.oom_control", "oom_kill\n");
    EXPECT_FALSE(readMemoryHits(v1()));
    EXPECT_FALSE(readKills(v1()));
    std::filesystem::create_directories(folder_ / "memory.max");
    EXPECT_FALSE(readWorkingSet(v2()));
}

// ---- adding up over a tree ----

class TreeCountTest : public ResourceFilesTest {
protected:
    void count(const std::string& cgroup, std::uint64_t number) {
        folder_.write(cgroup + "/pids.events", "max " + std::to_string(number) + "\n");
    }
    std::string top() const { return folder_ / "top"; }
};

TEST_F(TreeCountTest, CountsOnlyWhatGrows) {
    TreeCount kills(TreeCount::FirstSeen::IsGrowth);
    count("top", 5);
    count("top/a/b", 2);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 0U);
    EXPECT_EQ(kills.total(), 7U);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 0U);
    count("top", 6);
    count("top/a/b", 4);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 3U);
    EXPECT_EQ(kills.total(), 10U);
}

TEST_F(TreeCountTest, TheTopAloneIsLookedAtInBetween) {
    TreeCount kills(TreeCount::FirstSeen::IsGrowth);
    count("top", 1);
    count("top/a", 1);
    kills.lookAtTree(top(), readPidsHits);
    count("top", 2);
    count("top/a", 2);
    EXPECT_EQ(kills.lookAtTop(top(), readPidsHits), 1U);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 1U);
}

TEST_F(TreeCountTest, ANewCgroupsCountIsGrowthWhereItCannotBeOld) {
    TreeCount kills(TreeCount::FirstSeen::IsGrowth);
    count("top", 1);
    kills.lookAtTree(top(), readPidsHits);
    count("top/new", 3);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 3U);
}

TEST_F(TreeCountTest, ANewCgroupsCountIsNoGrowthWhereItMayBeOld) {
    TreeCount hits(TreeCount::FirstSeen::IsKnown);
    count("top", 1);
    count("top/old", 3);
    hits.lookAtTop(top(), readPidsHits);
    EXPECT_EQ(hits.lookAtTree(top(), readPidsHits), 0U);
    count("top/old", 5);
    EXPECT_EQ(hits.lookAtTree(top(), readPidsHits), 2U);
}

TEST_F(TreeCountTest, ACgroupThatComesAgainUnderItsNameCountsAnew) {
    TreeCount kills(TreeCount::FirstSeen::IsGrowth);
    count("top", 1);
    count("top/a", 3);
    kills.lookAtTree(top(), readPidsHits);
    std::filesystem::remove_all(folder_ / "top/a");
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 0U);
    count("top/a", 3);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 3U);
    count("top/a", 1);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 1U) << "it was another one before, though nobody saw it go";
}

TEST_F(TreeCountTest, ATreeThatIsGoneHasNotGrown) {
    TreeCount kills(TreeCount::FirstSeen::IsGrowth);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 0U);
    count("top", 4);
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 0U) << "the first look that finds it is the first";
    std::filesystem::remove_all(top());
    EXPECT_EQ(kills.lookAtTree(top(), readPidsHits), 0U);
    EXPECT_EQ(kills.lookAtTop(top(), readPidsHits), 0U);
    EXPECT_EQ(kills.total(), 4U);
}

TEST_F(TreeCountTest, ATreeWithoutEndIsLookedAtInPart) {
    for (std::size_t i = 0; i <= TreeCount::kMaxFolders; ++i) {
        std::filesystem::create_directories(folder_ / ("top/" + std::to_string(i)));
    }
    std::size_t reads = 0;
    TreeCount kills(TreeCount::FirstSeen::IsGrowth);
    kills.lookAtTree(top(), [&](const std::string&) { return ++reads, std::optional<std::uint64_t>(1); });
    EXPECT_EQ(reads, TreeCount::kMaxFolders);
}

}  // namespace
}  // namespace kx::agent::lxc
