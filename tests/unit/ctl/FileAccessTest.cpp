#include "ctl/doctor/FileAccess.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/ScriptedAgent.h"

namespace kx::ctl {
namespace {

constexpr uid_t kStranger = 4711;

class FileAccess : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory((folder_ / "sub"));
        std::ofstream(path_) << "";
        set(0755, 0660);
    }

    void set(mode_t folder, mode_t file) {
        ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
        ASSERT_EQ(::chmod((folder_ / "sub").c_str(), folder), 0);
        ASSERT_EQ(::chmod(path_.c_str(), file), 0);
    }

    const test::TemporaryFolder folder_;
    const std::string path_ = (folder_ / "sub") + "/socket";
};

TEST_F(FileAccess, LetsRootPassEverywhere) {
    set(0700, 0600);
    EXPECT_EQ(obstacleTo(path_, {0, {}}), std::nullopt);
}

TEST_F(FileAccess, NamesTheSocketThatAStrangerMayNotWriteTo) {
    EXPECT_EQ(obstacleTo(path_, {kStranger, {kStranger}}), path_);
    set(0755, 0666);
    EXPECT_EQ(obstacleTo(path_, {kStranger, {kStranger}}), std::nullopt);
}

TEST_F(FileAccess, NamesTheFolderThatDoesNotLetPass) {
    set(0700, 0666);
    EXPECT_EQ(obstacleTo(path_, {kStranger, {kStranger}}), (folder_ / "sub"));
}

TEST_F(FileAccess, LetsMembersOfTheGroupPass) {
    struct stat found {};
    ASSERT_EQ(::stat(path_.c_str(), &found), 0);
    EXPECT_EQ(obstacleTo(path_, {kStranger, {1, found.st_gid}}), std::nullopt);
    set(0755, 0606);  // the first bits that are meant for somebody decide
    EXPECT_EQ(obstacleTo(path_, {kStranger, {1, found.st_gid}}), path_);
}

TEST_F(FileAccess, NamesWhatIsNotThere) {
    EXPECT_EQ(obstacleTo(path_ + "2", {kStranger, {}}), path_ + "2");
    EXPECT_EQ(ownerText(path_ + "2"), "?");
}

TEST_F(FileAccess, TellsOwnersByName) {
    if (::getuid() == 0) {
        EXPECT_EQ(ownerText(path_), "root:root 0660");
        ASSERT_EQ(::chown(path_.c_str(), kStranger, kStranger), 0);
        EXPECT_EQ(ownerText(path_), "4711:4711 0660");
    }
}

TEST(Identity, IsThatOfTheSystem) {
    const auto nobody = identityOf("nobody");
    ASSERT_TRUE(nobody);
    EXPECT_EQ(nobody->user, 65534U);
    EXPECT_TRUE(nobody->isIn(65534));
    EXPECT_FALSE(nobody->isIn(0));
    EXPECT_FALSE(identityOf("kx-no-such-user"));
    EXPECT_EQ(ownIdentity().user, ::geteuid());
    EXPECT_TRUE(ownIdentity().isIn(::getegid()));
}

}  // namespace
}  // namespace kx::ctl
