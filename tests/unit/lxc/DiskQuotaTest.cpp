#include "agent/backends/lxc/DiskQuota.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

/// A file system of the test's own, with room for little.
class MountedFolder {
public:
    explicit MountedFolder(const std::string& path) : path_(path) {
        mounted_ = ::mount("kxquota", path.c_str(), "tmpfs", 0, "size=1m,nr_inodes=100") == 0;
        error_ = errno;
    }
    ~MountedFolder() {
        if (mounted_) {
            ::umount2(path_.c_str(), MNT_DETACH);
        }
    }
    MountedFolder(const MountedFolder&) = delete;
    MountedFolder& operator=(const MountedFolder&) = delete;

    /// @return why nothing is mounted; 0: it is
    int error() const { return mounted_ ? 0 : error_; }

private:
    const std::string path_;
    bool mounted_ = false;
    int error_ = 0;
};

DiskQuota usage(const std::string& folder) {
    return readMountUsage(folder, ::getpid(), MountTable::of("self"));
}

dev_t deviceOf(const char* path) {
    struct stat status {};
    EXPECT_EQ(::stat(path, &status), 0);
    return status.st_dev;
}

TEST(DiskQuotaTest, spaceIsInBytesAndItsLimitsInBlocksOf1024) {
    const DiskQuota quota = quotaOf({5000, 4, 8, 0, 7, 10, 20, 0}, kNow);
    EXPECT_EQ(quota, (DiskQuota{5000, 4096, 8192, 0, 7, 10, 20, 0}));
}

TEST(DiskQuotaTest, graceIsWhatIsLeftOfIt) {
    const auto end = static_cast<std::uint64_t>(kNow);
    const DiskQuota quota = quotaOf({0, 1, 0, end + 604800, 0, 1, 0, end + 1}, kNow);
    EXPECT_EQ(quota.spaceGrace, 604800);
    EXPECT_EQ(quota.inodesGrace, 1);
}

TEST(DiskQuotaTest, thereIsNoGraceThatHasNotBegunOrIsOver) {
    const auto end = static_cast<std::uint64_t>(kNow);
    const DiskQuota nothing{.spaceUsed = 0, .inodesUsed = 0};
    EXPECT_EQ(quotaOf({0, 0, 0, 0, 0, 0, 0, 0}, kNow), nothing);
    EXPECT_EQ(quotaOf({0, 0, 0, end, 0, 0, 0, end - 1}, kNow), nothing);
    EXPECT_EQ(quotaOf({0, 0, 0, 1, 0, 0, 0, 1}, kNow), nothing);
}

TEST(DiskQuotaTest, whatIsTooLargeIsTheLargest) {
    constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();
    constexpr std::uint64_t kLastBlock = std::uint64_t{1} << 53;  // 2^53 blocks are 2^63 bytes
    EXPECT_EQ(quotaOf({kAll, kAll, kLastBlock, 0, kAll, kAll, kAll, 0}, kNow),
              (DiskQuota{kMost, kMost, kMost, 0, kMost, kMost, kMost, 0}));
    EXPECT_EQ(quotaOf({0, kLastBlock - 1, 0, 0, 0, 0, 0, 0}, kNow).spaceSoftLimit, kMost - 1023);
    EXPECT_EQ(quotaOf({0, 0, 0, kAll, 0, 0, 0, kAll}, kNow).spaceGrace, kMost - kNow);
}

TEST(DiskQuotaTest, withoutAFolderThereIsNothing) {
    const test::TemporaryFolder folder;
    folder.write("file", "text");
    for (const std::string& path : {std::string(), folder / "missing", folder / "file"}) {
        const QuotaReading reading = readDiskQuota(path);
        EXPECT_FALSE(reading.reachable) << path;
        EXPECT_EQ(reading.problem, "") << path;
        EXPECT_EQ(reading.quota, DiskQuota{}) << path;
    }
}

TEST(DiskQuotaTest, withoutProjectQuotasNothingIsInvented) {
    const test::TemporaryFolder folder;
    folder.write("root/file", "text");
    const QuotaReading reading = readDiskQuota(folder / "root");
    EXPECT_TRUE(reading.reachable);
    EXPECT_NE(reading.problem, "");
    EXPECT_EQ(reading.quota, DiskQuota{}) << reading.problem;
    EXPECT_EQ(usage(folder / "root"), DiskQuota{});
}

TEST(DiskQuotaTest, aFolderWithAFileSystemToItselfUsesWhatThatUses) {
    const test::TemporaryFolder folder;
    folder.write("root/hidden", "text");
    const MountedFolder mount(folder / "root");
    if (mount.error() != 0) {
        GTEST_SKIP() << "nothing can be mounted: " << std::strerror(mount.error());
    }
    EXPECT_EQ(usage(folder / "root"), (DiskQuota{.spaceUsed = 0, .inodesUsed = 1})) << "the folder itself";
    folder.write("root/file", std::string(100'000, 'x'));
    folder.write("root/sub/file", "");
    const DiskQuota used = usage(folder / "root");
    ASSERT_TRUE(used.spaceUsed);
    EXPECT_GE(*used.spaceUsed, 100'000);
    EXPECT_LT(*used.spaceUsed, 200'000);
    EXPECT_EQ(used, (DiskQuota{.spaceUsed = used.spaceUsed, .inodesUsed = 4}));
    EXPECT_EQ(usage(folder / "root/sub"), DiskQuota{}) << "part of a file system only";
}

TEST(DiskQuotaTest, aFolderThatIsMountedElsewhereIsPartOfAFileSystemOnly) {
    const test::TemporaryFolder folder;
    folder.write("whole/part/file", "text");
    folder.write("root/hidden", "text");
    const MountedFolder whole(folder / "whole");
    folder.write("whole/part/file", "text");
    if (whole.error() != 0 ||
        ::mount((folder / "whole/part").c_str(), (folder / "root").c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "nothing can be mounted";
    }
    EXPECT_EQ(usage(folder / "root"), DiskQuota{});
    EXPECT_EQ(::umount2((folder / "root").c_str(), MNT_DETACH), 0);
}

TEST(DiskQuotaTest, withoutAFolderTheRootOfTheInitProcessIsTaken) {
    const MountTable none("");
    const DiskQuota own = readMountUsage("", ::getpid(), none);
    const MountTable mounts = MountTable::of("self");
    ASSERT_NE(mounts.root(), nullptr);
    EXPECT_EQ(own.spaceUsed.has_value(), mounts.root()->isWholeFileSystem(deviceOf("/")));
    EXPECT_EQ(readMountUsage("", -1, none), DiskQuota{});
}

}  // namespace
}  // namespace kx::agent::lxc
