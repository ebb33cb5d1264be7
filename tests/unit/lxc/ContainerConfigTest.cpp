#include "agent/backends/lxc/ContainerConfig.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

using ::testing::HasSubstr;

class ContainerConfigTest : public ::testing::Test {
protected:
    ConfigText read() { return readConfig(folder_ / "config"); }

    test::TemporaryFolder folder_;
};

TEST_F(ContainerConfigTest, IncludesAreResolvedInPlace) {
    folder_.write("config", "lxc.uts.name = a\n lxc.include = " + (folder_ / "more") + "\nlxc.uts.name = b\n");
    folder_.write("more", "# lxc.include = /nowhere\nlxc.include = '" + (folder_ / "d") + "'\nlxc.arch = x86_64");
    folder_.write("d/2.conf", "second = 2\n");
    folder_.write("d/1.conf", "first = 1\n");
    folder_.write("d/3.bak", "third = 3\n");
    EXPECT_EQ(
        read().text,
        "lxc.uts.name = a\n# lxc.include = /nowhere\nfirst = 1\nsecond = 2\nlxc.arch = x86_64\nlxc.uts.name = b\n");
    EXPECT_EQ(read().problem, "");
}

TEST_F(ContainerConfigTest, TheLogIsNotMentioned) {
    folder_.write("config", "lxc.log.file = /x\nlxc.log.level=3\nlxc.log.syslog = daemon\nlxc.logfile = old\n");
    EXPECT_EQ(read().text, "lxc.logfile = old\n") << "liblxc is to reject what it does not know";
}

TEST_F(ContainerConfigTest, AMissingIncludeIsAProblemThatNamesBothFilesAndGoesWhenTheFileComes) {
    folder_.write("config", "lxc.include = " + (folder_ / "more") + "\n");
    const ConfigText missing = read();
    EXPECT_EQ(missing.problem,
              (folder_ / "more") + ": No such file or directory (included by " + (folder_ / "config") + ")");
    EXPECT_FALSE(haveChanged(missing.parts));
    folder_.write("more", "lxc.arch = x86_64\n");
    EXPECT_TRUE(haveChanged(missing.parts));
    EXPECT_EQ(read().text, "lxc.arch = x86_64\n");
}

TEST_F(ContainerConfigTest, AChangeOfAnIncludedFileOrFolderIsSeen) {
    folder_.write("config", "lxc.include = " + (folder_ / "d") + "\n");
    folder_.write("d/1.conf", "first = 1\n");
    const ConfigText before = read();
    EXPECT_FALSE(haveChanged(before.parts));
    folder_.write("d/1.conf", "first = 10\n");
    EXPECT_TRUE(haveChanged(before.parts));
    const ConfigText later = read();
    folder_.write("d/2.conf", "second = 2\n");
    EXPECT_TRUE(haveChanged(later.parts));
}

TEST_F(ContainerConfigTest, NeitherAPipeNorACircleHoldsTheReaderUp) {
    ASSERT_EQ(::mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    folder_.write("config", "lxc.include = " + (folder_ / "pipe") + "\n");
    EXPECT_THAT(read().problem, HasSubstr("pipe: not a regular file"));
    folder_.write("config", "lxc.include = " + (folder_ / "config") + "\n");
    EXPECT_THAT(read().problem, HasSubstr("included too deeply"));
}

TEST_F(ContainerConfigTest, AMissingConfigurationIsAProblem) {
    EXPECT_EQ(read().problem, (folder_ / "config") + ": No such file or directory");
}

}  // namespace
}  // namespace kx::agent::lxc
