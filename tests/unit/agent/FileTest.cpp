#include "agent/base/File.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "agent/base/OwnedDescriptor.h"
#include "tests/support/TemporaryFolder.h"

namespace kx::agent {
namespace {

using testing::HasSubstr;

mode_t modeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

TEST(File, IsReadWholeUpToItsLimit) {
    const test::TemporaryFolder folder;
    const std::string content("a\0b\n", 4);
    ASSERT_EQ(replaceFile(folder / "f", content), "");
    std::string problem;
    EXPECT_EQ(readRegularFile(folder / "f", 4, problem), content);
    EXPECT_FALSE(readRegularFile(folder / "f", 3, problem));
    EXPECT_THAT(problem, HasSubstr("longer than 3 bytes"));
}

TEST(File, WhatIsNoRegularFileIsNotRead) {
    const test::TemporaryFolder folder;
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    std::string problem;
    EXPECT_FALSE(readRegularFile(folder / "pipe", 10, problem));
    EXPECT_THAT(problem, HasSubstr("not a regular file"));
    EXPECT_FALSE(readRegularFile(folder.path(), 10, problem));
    EXPECT_FALSE(readRegularFile(folder / "none", 10, problem));
    EXPECT_THAT(problem, HasSubstr(folder / "none"));
}

TEST(File, IsReadToItsEndFromWhereItIsOpen) {
    const test::TemporaryFolder folder;
    const std::string content = std::string(70000, 'a') + "end";  // more than a block
    ASSERT_EQ(replaceFile(folder / "f", content), "");
    const OwnedDescriptor file(::open((folder / "f").c_str(), O_RDONLY | O_CLOEXEC));
    std::string text = "before ";
    EXPECT_EQ(readToEnd(file.get(), content.size(), text), 0);
    EXPECT_EQ(text, "before " + content);
    ::lseek(file.get(), 0, SEEK_SET);
    EXPECT_EQ(readToEnd(file.get(), content.size() - 1, text), EFBIG);
    EXPECT_EQ(readToEnd(-1, 10, text), EBADF);
}

TEST(File, IsReplacedWithoutLeavingAnythingBeside) {
    const test::TemporaryFolder folder;
    ASSERT_EQ(replaceFile(folder / "f", "old"), "");
    ASSERT_EQ(replaceFile(folder / "f", "new"), "");
    std::string problem;
    EXPECT_EQ(readRegularFile(folder / "f", 10, problem), "new");
    const auto entries = std::filesystem::directory_iterator(folder.path());
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
    EXPECT_THAT(replaceFile(folder / "none/f", "x"), HasSubstr("cannot write"));
}

TEST(Folders, AreMadeOpenToReadersWhateverTheUmaskIs) {
    const test::TemporaryFolder folder;
    const mode_t former = ::umask(0777);
    const std::string problem = makeFolders(folder / "a/b");
    ::umask(former);
    EXPECT_EQ(problem, "");
    EXPECT_EQ(modeOf(folder / "a"), 0755U);
    EXPECT_EQ(modeOf(folder / "a/b"), 0755U);
    ASSERT_EQ(::chmod((folder / "a").c_str(), 0700), 0);
    EXPECT_EQ(makeFolders(folder / "a/b"), "");
    EXPECT_EQ(modeOf(folder / "a"), 0700U) << "one that was there is left as it is";
}

TEST(Folders, AFileInTheWayIsAnError) {
    const test::TemporaryFolder folder;
    std::ofstream(folder / "f") << "x";
    EXPECT_THAT(makeFolders(folder / "f"), HasSubstr("is not a folder"));
    EXPECT_THAT(makeFolders(folder / "f/g"), HasSubstr("cannot make the folder"));
}

TEST(Folders, ALinkToItselfIsAnErrorInWords) {
    const test::TemporaryFolder folder;
    std::filesystem::create_symlink(folder / "loop", folder / "loop");
    EXPECT_THAT(makeFolders(folder / "loop"), HasSubstr(folder / "loop"));
}

}  // namespace
}  // namespace kx::agent
