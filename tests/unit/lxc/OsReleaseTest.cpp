#include "agent/backends/lxc/OsRelease.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

using ::testing::HasSubstr;

std::optional<Template> os(const char* name, const char* version) {
    return Template{name, version};
}

TEST(ParseOsReleaseTest, takesBareAndQuotedValues) {
    EXPECT_EQ(parseOsRelease("ID=debian\nVERSION_ID=12\n"), os("debian", "12"));
    EXPECT_EQ(parseOsRelease("NAME=\"x\"\nID=\"opensuse leap\"\nVERSION_ID='15.5'\n"), os("opensuse leap", "15.5"));
}

TEST(ParseOsReleaseTest, undoesEscapesAsAShellDoes) {
    EXPECT_EQ(parseOsRelease("ID=\"a\\\"b\\\\c\\$\"\nVERSION_ID='a\\b'"), os("a\"b\\c$", "a\\b"));
}

TEST(ParseOsReleaseTest, cutsLongValuesBetweenCharacters) {
    const std::string most(255, 'x');
    EXPECT_EQ(parseOsRelease("ID=" + most + "y\nVERSION_ID=\"" + most + "\"\n"), os(most.c_str(), most.c_str()));
    const std::string wide = std::string(254, 'x') + "\xc3\xa4";
    EXPECT_EQ(parseOsRelease("ID=" + wide), os(std::string(254, 'x').c_str(), ""));
}

TEST(ParseOsReleaseTest, passesOverCommentsBlanksAndNonsense) {
    EXPECT_EQ(parseOsRelease("\n# ID=no\nnonsense\n  ID=alpine  \r\nID_LIKE=other\n=\nXVERSION_ID=9\n"),
              os("alpine", ""));
}

TEST(ParseOsReleaseTest, takesTheLastAssignment) {
    EXPECT_EQ(parseOsRelease("ID=a\nID=b\nVERSION_ID=1\nVERSION_ID=2"), os("b", "2"));
}

TEST(ParseOsReleaseTest, findsNothingWithoutAnId) {
    EXPECT_EQ(parseOsRelease(""), std::nullopt);
    EXPECT_EQ(parseOsRelease("ID=\nVERSION_ID=3"), std::nullopt);
    EXPECT_EQ(parseOsRelease("ID=\"\""), std::nullopt);
}

TEST(ParseOsReleaseTest, survivesUnfinishedQuotesAndBytes) {
    EXPECT_EQ(parseOsRelease("ID=\"deb"), os("deb", ""));
    EXPECT_EQ(parseOsRelease("ID=\"x\\"), os("x\\", ""));
    EXPECT_EQ(parseOsRelease("ID='\nVERSION_ID=\xff"), std::nullopt);
}

class ReadOsReleaseTest : public ::testing::Test {
protected:
    ReadOsReleaseTest() {
        std::filesystem::create_directories(box_ / "root/etc");
        box_.write("outside", "ID=stolen\n");
        root_ = openFolder(box_ / "root");
    }
    OsReleaseFile read() const { return readOsRelease(root_.get(), Bounds::Root); }
    void link(const std::string& target) const {
        std::filesystem::create_symlink(target, box_ / "root/etc/os-release");
    }

    test::TemporaryFolder box_;
    OwnedDescriptor root_;
};

TEST_F(ReadOsReleaseTest, readsTheFileInEtc) {
    box_.write("root/etc/os-release", "ID=debian\nVERSION_ID=\"12\"\n");
    EXPECT_EQ(read().os, os("debian", "12"));
    EXPECT_EQ(read().stamp, osReleaseStamp(root_.get(), Bounds::Root));
}

TEST_F(ReadOsReleaseTest, readsTheFileInUsrLibWhenThatInEtcIsMissing) {
    box_.write("root/usr/lib/os-release", "ID=fedora\n");
    EXPECT_EQ(read().os, os("fedora", ""));
}

TEST_F(ReadOsReleaseTest, followsLinksInsideTheRootAbsoluteOnesToo) {
    box_.write("root/usr/lib/os-release", "ID=inside\n");
    link("/usr/lib/os-release");
    EXPECT_EQ(read().os, os("inside", ""));
}

TEST_F(ReadOsReleaseTest, doesNotFollowAnAbsoluteLinkToTheHost) {
    link(box_ / "outside");
    EXPECT_EQ(read().os, std::nullopt);
}

TEST_F(ReadOsReleaseTest, doesNotClimbOutOfTheRoot) {
    link("../../outside");
    EXPECT_EQ(read().os, std::nullopt);
    // ".." at the root is the root itself.
    box_.write("root/outside", "ID=inside\n");
    EXPECT_EQ(read().os, os("inside", ""));
}

TEST_F(ReadOsReleaseTest, doesNotLeaveThroughALinkedFolder) {
    std::filesystem::remove(box_ / "root/etc");
    box_.write("etc/os-release", "ID=stolen\n");
    std::filesystem::create_symlink(box_ / "etc", box_ / "root/etc");
    EXPECT_EQ(read().os, std::nullopt);
}

TEST_F(ReadOsReleaseTest, doesNotLeaveThroughLinksOfTheProcessFileSystem) {
    if (::access("/proc/self/root", F_OK) != 0) {
        GTEST_SKIP() << "no /proc";
    }
    const OwnedDescriptor proc = openFolder("/proc/self");
    const FileText text = readFile(proc.get(), "root/etc/passwd", Bounds::Root, 100);
    EXPECT_FALSE(text.text);
    EXPECT_THAT(text.problem, HasSubstr("symbolic links"));
}

// The test would hang here if the pipe were opened for reading.
TEST_F(ReadOsReleaseTest, doesNotWaitForAPipe) {
    ASSERT_EQ(::mkfifo((box_ / "root/etc/os-release").c_str(), 0644), 0);
    EXPECT_EQ(read().os, std::nullopt);
    EXPECT_EQ(readFile(root_.get(), "etc/os-release", Bounds::Root, 100).problem, "not a regular file");
}

TEST_F(ReadOsReleaseTest, doesNotReadAFolderOrALinkLoop) {
    std::filesystem::create_directories(box_ / "root/etc/os-release");
    EXPECT_EQ(read().os, std::nullopt);
    std::filesystem::remove(box_ / "root/etc/os-release");
    link("os-release");
    EXPECT_EQ(read().os, std::nullopt);
}

TEST_F(ReadOsReleaseTest, readsAFileOfTheLimitAndNoneAboveIt) {
    const std::string start = "ID=big\n#";
    box_.write("root/etc/os-release", start + std::string(kMaxOsReleaseBytes - start.size(), 'x'));
    EXPECT_EQ(read().os, os("big", ""));
    box_.write("root/etc/os-release", start + std::string(kMaxOsReleaseBytes - start.size() + 1, 'x'));
    EXPECT_EQ(read().os, std::nullopt);
}

TEST_F(ReadOsReleaseTest, doesNotReadAHugeFileThatIsMostlyHole) {
    box_.write("root/etc/os-release", "ID=huge\n");
    std::filesystem::resize_file(box_ / "root/etc/os-release", std::uintmax_t{1} << 40U);
    const FileText text = readFile(root_.get(), "etc/os-release", Bounds::Root, kMaxOsReleaseBytes);
    EXPECT_FALSE(text.text);
    EXPECT_EQ(text.problem, "longer than 65536 bytes");
}

TEST_F(ReadOsReleaseTest, tellsAChangedFileByItsStamp) {
    box_.write("root/etc/os-release", "ID=one\n");
    const FileStamp before = osReleaseStamp(root_.get(), Bounds::Root);
    box_.write("root/etc/os-release", "ID=other\n");
    EXPECT_NE(osReleaseStamp(root_.get(), Bounds::Root), before);
    std::filesystem::remove(box_ / "root/etc/os-release");
    EXPECT_EQ(osReleaseStamp(root_.get(), Bounds::Root), FileStamp{});
}

}  // namespace
}  // namespace kx::agent::lxc
