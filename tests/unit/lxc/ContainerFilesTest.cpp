#include "agent/backends/lxc/ContainerFiles.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

class ContainerFilesTest : public ::testing::Test {
protected:
    FolderFiles read() { return readContainerFolder(query_); }

    test::TemporaryFolder path_;
    FolderQuery query_{path_.path(), "web", false, false, nullptr, {}};
};

TEST_F(ContainerFilesTest, OnlyWhatHasChangedIsRead) {
    path_.write("web/config", "lxc.arch = x86_64\n");
    path_.write("web/kx.toml", "description = \"a\"\n");
    const FolderFiles first = read();
    ASSERT_TRUE(first.config && first.notes);
    query_.config = std::make_shared<const ConfigParts>(first.config->parts);
    query_.notes = first.notes->stamp;
    EXPECT_FALSE(read().config || read().notes);
    path_.write("web/kx.toml", "description = \"other\"\n");
    EXPECT_TRUE(read().notes);
    EXPECT_FALSE(read().config);
    query_.configAnyway = true;
    EXPECT_TRUE(read().config);
}

TEST_F(ContainerFilesTest, AFolderIsToldFromAContainerAndFromNothing) {
    EXPECT_FALSE(read().isFolder);
    path_.write("web/other", "");
    EXPECT_TRUE(read().isFolder);
    EXPECT_FALSE(read().hasConfig);
    path_.write("web/config", "");
    EXPECT_TRUE(read().hasConfig);
    EXPECT_EQ(read().owner, ::geteuid());
}

TEST_F(ContainerFilesTest, NothingIsReadWhileTheContainerIsBeingCreated) {
    path_.write("web/config", "");
    path_.write("web/partial", "");
    EXPECT_TRUE(read().isBusy);
    EXPECT_FALSE(read().config);
}

TEST_F(ContainerFilesTest, TheOsReleaseIsReadWhereItIsNotTheKnownOne) {
    path_.write("root/etc/os-release", "ID=a\n");
    RootQuery query{"dir:" + (path_ / "root"), -1, nullptr, std::nullopt};
    const auto first = readContainerOs(query);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->os, (Template{"a", ""}));
    query.known = first->stamp;
    EXPECT_FALSE(readContainerOs(query));
    EXPECT_FALSE(readContainerOs({"", -1, nullptr, std::nullopt}));
}

}  // namespace
}  // namespace kx::agent::lxc
