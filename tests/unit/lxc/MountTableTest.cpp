#include "agent/backends/lxc/MountTable.h"

#include <gmock/gmock.h>
#include <sys/sysmacros.h>

namespace kx::agent::lxc {
namespace {

constexpr const char* kText =
    "21 20 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
    "makes no sense\n"
    "30 21 0:50 / /tank/ct/web rw master:2 propagate_from:1 - zfs tank/ct/web rw\n"
    "31 21 8:1 /srv/web /var/lib/lxc/web/rootfs rw - ext4 /dev/sda1 rw\n"
    "32 21 0:51 / /odd\n"
    "40 21 0:52 / / rw - overlay overlay rw\n";

TEST(MountTable, KnowsOfEachMountWhatIsMounted) {
    const MountTable table(kText);
    ASSERT_NE(table.find(31), nullptr);
    EXPECT_EQ(table.find(31)->root, "/srv/web");
    EXPECT_EQ(table.find(31)->type, "ext4");
    ASSERT_NE(table.find(30), nullptr);
    EXPECT_EQ(table.find(30)->type, "zfs");
    EXPECT_EQ(table.find(32), nullptr) << "a line without a type";
    EXPECT_EQ(table.find(99), nullptr);
}

TEST(MountTable, OfSeveralMountsOnTheRootTheLastIsSeen) {
    ASSERT_NE(MountTable(kText).root(), nullptr);
    EXPECT_EQ(MountTable(kText).root()->id, 40U);
    EXPECT_EQ(MountTable("").root(), nullptr);
}

TEST(MountTable, ReadsThatOfAProcess) {
    ASSERT_NE(MountTable::of("self").root(), nullptr);
    EXPECT_NE(MountTable::of("self").root()->type, "");
    EXPECT_EQ(MountTable::of("no process").root(), nullptr);
}

TEST(Mount, IsAWholeFileSystemWhereNothingElseCanBeInIt) {
    const dev_t disk = makedev(8, 1);
    const dev_t none = makedev(0, 50);
    EXPECT_TRUE((Mount{1, "/", "ext4"}.isWholeFileSystem(disk)));
    EXPECT_FALSE((Mount{1, "/srv/web", "ext4"}.isWholeFileSystem(disk))) << "a folder of one";
    EXPECT_TRUE((Mount{1, "/", "zfs"}.isWholeFileSystem(none)));
    EXPECT_TRUE((Mount{1, "/", "btrfs"}.isWholeFileSystem(none)));
    EXPECT_FALSE((Mount{1, "/web", "btrfs"}.isWholeFileSystem(none))) << "a subvolume shares it with others";
    EXPECT_FALSE((Mount{1, "/", "overlay"}.isWholeFileSystem(none))) << "it shows the usage of what is below it";
    EXPECT_FALSE((Mount{1, "/", "nfs4"}.isWholeFileSystem(none)));
    EXPECT_FALSE((Mount{1, "/", "fuseblk"}.isWholeFileSystem(disk))) << "a process might never answer";
}

}  // namespace
}  // namespace kx::agent::lxc
