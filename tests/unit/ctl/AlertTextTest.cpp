#include "ctl/commands/AlertText.h"

#include <gtest/gtest.h>

#include <fstream>

#include "ctl/ExitCode.h"
#include "tests/support/ScriptedAgent.h"

namespace kx::ctl {
namespace {

std::string problemOf(const std::string& path) {
    try {
        readAlertText(path);
        return "none";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), ExitCode::WrongUsage);
        return failure.what();
    }
}

TEST(AlertText, IsTheFileByteForByte) {
    const test::TemporaryFolder folder;
    const std::string content = std::string("a\0b\n\xff", 5) + std::string(200'000, 'x');
    std::ofstream((folder / "text"), std::ios::binary) << content;
    EXPECT_EQ(readAlertText((folder / "text")), content);
}

TEST(AlertText, MayBeEmpty) {
    EXPECT_EQ(readAlertText("/dev/null"), "");
}

TEST(AlertText, OfAFileThatCannotBeReadIsAnErrorThatNamesIt) {
    EXPECT_EQ(problemOf("/nonexistent/file"), "--text-file: /nonexistent/file: No such file or directory");
    EXPECT_EQ(problemOf("/"), "--text-file: /: Is a directory");
}

TEST(AlertText, OfAFileWithoutAnEndIsAnError) {
    EXPECT_EQ(problemOf("/dev/zero"), "--text-file: /dev/zero: it has more than 8388608 bytes");
}

}  // namespace
}  // namespace kx::ctl
