// On a btrfs of the test's own, in a file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "agent/backends/lxc/DiskQuota.h"
#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

using ::testing::HasSubstr;

constexpr std::int64_t kMebibyte = 1024 * 1024;

bool run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

class BtrfsQuotaTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!run("command -v mkfs.btrfs") || !run("grep -w btrfs /proc/filesystems")) {
            GTEST_SKIP() << "no btrfs here";
        }
        const std::string image = folder_ / "image";
        ASSERT_EQ(::truncate(folder_.write("image", "").c_str(), 128 * kMebibyte), 0);
        ASSERT_TRUE(run("mkfs.btrfs -q -M " + image));
        std::filesystem::create_directory(top_);
        mounted_ = run("mount -o loop " + image + " " + top_);
        if (!mounted_) {
            GTEST_SKIP() << "nothing can be mounted from a file";
        }
        ASSERT_TRUE(run("btrfs subvolume create " + web_));
    }

    void TearDown() override {
        if (mounted_) {
            EXPECT_TRUE(run("umount " + top_));
        }
    }

    DiskQuota mountUsage(const std::string& path) const {
        return readMountUsage(path, ::getpid(), MountTable::of("self"));
    }

    const test::TemporaryFolder folder_;
    const std::string top_ = folder_ / "top";
    const std::string web_ = top_ + "/web";
    bool mounted_ = false;
};

TEST_F(BtrfsQuotaTest, ASubvolumeUsesWhatItsQuotaGroupRefersTo) {
    ASSERT_TRUE(run("btrfs quota enable " + top_));
    ASSERT_TRUE(run("dd if=/dev/zero bs=1M count=5 of=" + web_ + "/file"));
    ASSERT_TRUE(run("dd if=/dev/zero bs=1M count=9 of=" + top_ + "/other"));
    ASSERT_TRUE(run("btrfs filesystem sync " + top_));
    ASSERT_TRUE(run("btrfs quota rescan -w " + top_));
    QuotaReading reading = readDiskQuota(web_);
    EXPECT_TRUE(reading.reachable);
    EXPECT_EQ(reading.problem, "");
    ASSERT_TRUE(reading.quota.spaceUsed);
    EXPECT_GE(*reading.quota.spaceUsed, 5 * kMebibyte);
    EXPECT_LT(*reading.quota.spaceUsed, 6 * kMebibyte);
    EXPECT_EQ(reading.quota.spaceHardLimit, 0);
    EXPECT_FALSE(reading.quota.inodesUsed) << "btrfs counts none";
    ASSERT_TRUE(run("btrfs qgroup limit 50M " + web_));
    EXPECT_EQ(readDiskQuota(web_).quota.spaceHardLimit, 50 * kMebibyte);
    EXPECT_EQ(readDiskQuota(web_).quota.spaceSoftLimit, 0);
}

TEST_F(BtrfsQuotaTest, WithoutQuotaGroupsTheUsageOfASubvolumeIsNotKnown) {
    const QuotaReading reading = readDiskQuota(web_);
    EXPECT_TRUE(reading.reachable);
    EXPECT_THAT(reading.problem, HasSubstr("btrfs quota enable"));
    EXPECT_EQ(reading.quota, DiskQuota());
    EXPECT_EQ(mountUsage(web_), DiskQuota()) << "it has a device number of its own, and is no mount all the same";
}

TEST_F(BtrfsQuotaTest, AFolderOfASubvolumeHasNoQuotaGroup) {
    ASSERT_TRUE(run("btrfs quota enable " + top_));
    std::filesystem::create_directory(web_ + "/rootfs");
    const QuotaReading reading = readDiskQuota(web_ + "/rootfs");
    EXPECT_EQ(reading.quota, DiskQuota());
    EXPECT_THAT(reading.problem, HasSubstr("subvolume"));
}

TEST_F(BtrfsQuotaTest, OneThatIsMountedWholeUsesWhatItHasInUse) {
    ASSERT_TRUE(run("dd if=/dev/zero bs=1M count=7 of=" + web_ + "/file && sync"));
    const DiskQuota usage = mountUsage(top_);
    ASSERT_TRUE(usage.spaceUsed);
    EXPECT_GE(*usage.spaceUsed, 7 * kMebibyte);
    EXPECT_FALSE(usage.inodesUsed);
    std::filesystem::create_directory(folder_ / "mount");
    ASSERT_TRUE(run("mount --bind " + web_ + " " + (folder_ / "mount")));
    EXPECT_EQ(mountUsage(folder_ / "mount"), DiskQuota()) << "it shares the file system with others";
    EXPECT_TRUE(run("umount " + (folder_ / "mount")));
}

}  // namespace
}  // namespace kx::agent::lxc
