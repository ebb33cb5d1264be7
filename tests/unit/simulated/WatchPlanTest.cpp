// Which folders are watched for a path.
#include <gmock/gmock.h>

#include "agent/backends/simulated/FileWatch.h"
#include "tests/support/TemporaryFolder.h"

namespace kx::agent::simulated {
namespace {

using test::TemporaryFolder;
using test::writeFile;

namespace fs = std::filesystem;

class WatchPlanTest : public testing::Test {
protected:
    WatchPlan planOf(const std::string& name) const { return planWatches(folder_ / name); }
    std::string sub(const std::string& name) const { return folder_ / name; }

    TemporaryFolder folder_;
    const std::string top_ = folder_.path();
};

TEST_F(WatchPlanTest, OfAFileIsItsNameInItsFolder) {
    writeFile(folder_ / "file", "");
    EXPECT_EQ(planOf("file"), (WatchPlan{{top_, {"file"}}}));
}

TEST_F(WatchPlanTest, OfAMissingFileIsItsNameInItsFolder) {
    EXPECT_EQ(planOf("file"), (WatchPlan{{top_, {"file"}}}));
}

TEST_F(WatchPlanTest, OfAMissingFolderIsItsNameInTheLastFolderThatIsThere) {
    EXPECT_EQ(planOf("a/b/file"), (WatchPlan{{top_, {"a"}}}));
}

TEST_F(WatchPlanTest, OfALinkedFileHasTheLinkAndTheFile) {
    fs::create_directory(folder_ / "real");
    writeFile(folder_ / "real/inventory", "");
    fs::create_symlink("real/inventory", folder_ / "file");
    EXPECT_EQ(planOf("file"), (WatchPlan{{top_, {"file"}}, {sub("real"), {"inventory"}}}));
}

TEST_F(WatchPlanTest, OfAnAbsoluteLinkToTheSameFolderHasBothNamesThere) {
    fs::create_symlink(folder_ / "inventory", folder_ / "file");
    EXPECT_EQ(planOf("file"), (WatchPlan{{top_, {"file", "inventory"}}}));
}

TEST_F(WatchPlanTest, OfALinkedFolderHasTheLinkAndTheFile) {
    fs::create_directories(folder_ / "versions/1");
    writeFile(folder_ / "versions/1/file", "");
    fs::create_symlink("versions/1", folder_ / "current");
    EXPECT_EQ(planOf("current/file"), (WatchPlan{{top_, {"current"}}, {sub("versions/1"), {"file"}}}));
}

TEST_F(WatchPlanTest, ResolvesParentFoldersAfterLinks) {
    fs::create_directories(folder_ / "a/b");
    fs::create_symlink("a/b", folder_ / "link");
    EXPECT_EQ(planOf("link/../file"), (WatchPlan{{top_, {"link"}}, {sub("a"), {"file"}}}));
}

TEST_F(WatchPlanTest, OfLinksInACircleEnds) {
    fs::create_symlink("b", folder_ / "a");
    fs::create_symlink("a", folder_ / "b");
    EXPECT_EQ(planOf("a"), (WatchPlan{{top_, {"a", "b"}}}));
}

TEST_F(WatchPlanTest, OfAFileThatIsTakenForAFolderIsTheFile) {
    writeFile(folder_ / "file", "");
    EXPECT_EQ(planOf("file/inventory"), (WatchPlan{{top_, {"file"}}}));
}

}  // namespace
}  // namespace kx::agent::simulated
