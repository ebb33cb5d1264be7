#include "agent/backends/lxc/CgroupTree.h"

#include <gmock/gmock.h>

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kHybrid =
    "31 23 0:28 / /sys/fs/cgroup rw,relatime - tmpfs tmpfs rw,mode=755\n"
    "32 31 0:29 / /sys/fs/cgroup/cpu,cpuacct rw,relatime shared:9 master:2 - cgroup cgroup rw,cpu,cpuacct\n"
    "37 31 0:34 / /sys/fs/cgroup/freezer rw,relatime - cgroup cgroup rw,freezer\n"
    "40 31 0:37 / /sys/fs/cgroup/systemd rw,relatime - cgroup cgroup rw,xattr,name=systemd\n"
    "41 31 0:38 / /sys/fs/cgroup/uni\\040fied rw,relatime - cgroup2 cgroup2 rw\n";

CgroupMount unified(const std::string& root = "/") {
    return CgroupMount{"/sys/fs/cgroup", root, {}, true};
}

TEST(CgroupTreeTest, findsTheHierarchiesOfAHybridHost) {
    const auto mounts = cgroupMountsIn(kHybrid);
    ASSERT_THAT(mounts, SizeIs(4));
    EXPECT_EQ(mounts[0].mountPoint, "/sys/fs/cgroup/cpu,cpuacct");
    EXPECT_THAT(mounts[0].controllers, ElementsAre("rw", "cpu", "cpuacct"));
    EXPECT_FALSE(mounts[0].v2);
    EXPECT_EQ(mounts[3].mountPoint, "/sys/fs/cgroup/uni fied");
    EXPECT_TRUE(mounts[3].v2);
}

TEST(CgroupTreeTest, findsNoneInAFileThatMakesNoSense) {
    for (const char* text : {"", "\n\n", "31 23 0:28 / /x rw", "a b c d e f -", "1 2 3 / /x rw - cgroup"}) {
        EXPECT_THAT(cgroupMountsIn(text), IsEmpty()) << text;
    }
}

TEST(CgroupTreeTest, looksUpAProcessByItsController) {
    const auto mounts = cgroupMountsIn(kHybrid);
    const std::string cgroups = "9:name=systemd:/init.scope\n6:freezer:/lxc.payload.a:b\n1:cpu,cpuacct:/c\n0::/u\n";
    EXPECT_EQ(cgroupPathIn(cgroups, mounts[0]), "/c");
    EXPECT_EQ(cgroupPathIn(cgroups, mounts[1]), "/lxc.payload.a:b");
    EXPECT_EQ(cgroupPathIn(cgroups, mounts[2]), "/init.scope");
    EXPECT_EQ(cgroupPathIn(cgroups, mounts[3]), "/u");
    EXPECT_EQ(cgroupPathIn("6:memory:/x\n", mounts[1]), std::nullopt);
    EXPECT_EQ(cgroupPathIn("", mounts[3]), std::nullopt);
}

TEST(CgroupTreeTest, turnsAPathIntoAFolder) {
    EXPECT_EQ(cgroupFolder(unified(), "/"), "/sys/fs/cgroup");
    EXPECT_EQ(cgroupFolder(unified(), "/lxc.payload.web"), "/sys/fs/cgroup/lxc.payload.web");
    EXPECT_EQ(cgroupFolder(unified("/docker/1"), "/docker/1/lxc.payload.web"), "/sys/fs/cgroup/lxc.payload.web");
    EXPECT_EQ(cgroupFolder(unified("/docker/1"), "/docker/1"), "/sys/fs/cgroup");
}

TEST(CgroupTreeTest, knowsWhatAMountDoesNotShow) {
    EXPECT_EQ(cgroupFolder(unified("/docker/1"), "/docker/12"), std::nullopt);
    EXPECT_EQ(cgroupFolder(unified("/docker/1"), "/"), std::nullopt);
    EXPECT_EQ(cgroupFolder(unified(), "/../../init.scope"), std::nullopt);
}

TEST(CgroupTreeTest, cutsAPathDownToTheContainersOwnCgroup) {
    EXPECT_EQ(payloadPath("/lxc.payload.web", ""), "/lxc.payload.web");
    EXPECT_EQ(payloadPath("/lxc.payload.web/init.scope", ""), "/lxc.payload.web");
    EXPECT_EQ(payloadPath("/a/lxc.payload.web-1/system.slice/x", ""), "/a/lxc.payload.web-1");
    EXPECT_EQ(payloadPath("/own/place/init.scope", ""), "/own/place");
}

TEST(CgroupTreeTest, cutsAPathDownToTheConfiguredCgroupThatHasTheLimits) {
    EXPECT_EQ(payloadPath("/lxc/101/ns", "lxc/101"), "/lxc/101");
    EXPECT_EQ(payloadPath("/lxc/101/ns/init.scope", "lxc/101"), "/lxc/101");
    EXPECT_EQ(payloadPath("/top/lxc/101", "lxc/101"), "/top/lxc/101");
    EXPECT_EQ(payloadPath("/lxc/101-2/ns", "lxc/101"), "/lxc/101-2") << "LXC's way with a name in use";
    EXPECT_EQ(payloadPath("/lxc/1012/init.scope", "lxc/101"), "/lxc/1012") << "another container's";
    EXPECT_EQ(payloadPath("/lxc/101-/init.scope", "lxc/101"), "/lxc/101-");
    EXPECT_EQ(payloadPath("/lxc.payload.web/x", "lxc/101"), "/lxc.payload.web") << "configured since it runs";
}

TEST(CgroupTreeTest, tellsWhoseACgroupFolderMayBe) {
    EXPECT_THAT(containersOfCgroup("lxc.payload.web"), ElementsAre("web"));
    EXPECT_THAT(containersOfCgroup("lxc.monitor.101"), ElementsAre("101"));
    EXPECT_THAT(containersOfCgroup("lxc.payload.web-1"), ElementsAre("web-1", "web"));
    EXPECT_THAT(containersOfCgroup("lxc.payload.web-a"), ElementsAre("web-a"));
    EXPECT_THAT(containersOfCgroup("lxc.payload.web-"), ElementsAre("web-"));
    EXPECT_THAT(containersOfCgroup("lxc.pivot"), IsEmpty());
    EXPECT_THAT(containersOfCgroup("system.slice"), IsEmpty());
}

TEST(CgroupTreeTest, aProcessThatIsGoneHasNoFreezer) {
    EXPECT_FALSE(CgroupTree::read().freezerOf(0));
}

}  // namespace
}  // namespace kx::agent::lxc
