#include "agent/backends/lxc/RootfsPath.h"

#include <gmock/gmock.h>

namespace kx::agent::lxc {
namespace {

TEST(RootfsPathTest, takesFolders) {
    EXPECT_EQ(rootfsFolder("dir:/var/lib/lxc/web/rootfs"), "/var/lib/lxc/web/rootfs");
    EXPECT_EQ(rootfsFolder("/srv/root"), "/srv/root");
    EXPECT_EQ(rootfsFolder("btrfs:/srv/root"), "/srv/root");
    EXPECT_EQ(rootfsFolder("dir:/with:colon"), "/with:colon");
    EXPECT_EQ(rootfsFolder("/with:colon"), "/with:colon");
}

TEST(RootfsPathTest, takesNoneThatIsThereOnlyWhileTheContainerRuns) {
    for (const char* value :
         {"overlay:/lower:/upper", "overlayfs:/lower:/upper", "lvm:/dev/vg/web", "loop:/srv/image", "zfs:pool/web",
          "nbd:/srv/image", "rbd:/dev/rbd0", "", "dir:", "dir:relative", "relative"}) {
        EXPECT_EQ(rootfsFolder(value), std::nullopt) << value;
    }
}

}  // namespace
}  // namespace kx::agent::lxc
