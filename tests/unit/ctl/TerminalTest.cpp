#include "ctl/view/Terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace kx::ctl {
namespace {

/// A terminal without a person.
class PseudoTerminal : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::grantpt(master_), 0);
        ASSERT_EQ(::unlockpt(master_), 0);
        terminal_ = ::open(::ptsname(master_), O_RDWR | O_NOCTTY);
        ASSERT_GE(terminal_, 0);
        ::setenv("TERM", "xterm", 1);
        ::unsetenv("NO_COLOR");
    }
    ~PseudoTerminal() override {
        ::close(terminal_);
        ::close(master_);
    }

    const int master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
    int terminal_ = -1;
};

TEST_F(PseudoTerminal, TellsItsSize) {
    const winsize size{10, 40, 0, 0};
    ASSERT_EQ(::ioctl(terminal_, TIOCSWINSZ, &size), 0);
    ASSERT_TRUE(terminalSize(terminal_));
    EXPECT_EQ(terminalSize(terminal_)->columns, 40U);
    EXPECT_EQ(terminalSize(terminal_)->rows, 10U);
    EXPECT_EQ(tableRoom(terminal_), 40U);
}

TEST_F(PseudoTerminal, HasTheUsualSizeWhereItDoesNotKnow) {
    const winsize size{};
    ASSERT_EQ(::ioctl(terminal_, TIOCSWINSZ, &size), 0);
    EXPECT_EQ(tableRoom(terminal_), 80U);
}

TEST_F(PseudoTerminal, HasColoursUnlessSomebodySaysNo) {
    EXPECT_TRUE(wantsColors(terminal_, false));
    EXPECT_FALSE(wantsColors(terminal_, true));
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(wantsColors(terminal_, false));
    ::setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(wantsColors(terminal_, false));
    ::setenv("TERM", "dumb", 1);
    EXPECT_FALSE(wantsColors(terminal_, false));
}

TEST(Terminal, IsNotAFile) {
    const int file = ::open("/dev/null", O_RDWR);
    EXPECT_FALSE(terminalSize(file));
    EXPECT_FALSE(tableRoom(file));
    EXPECT_FALSE(wantsColors(file, false));
    ::close(file);
}

}  // namespace
}  // namespace kx::ctl
