#include "agent/backends/lxc/NetDevText.h"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

namespace kx::agent::lxc {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::Ne;

/// As kernels since 2.4 print it.
constexpr const char* kHead =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier "
    "compressed\n";

/// One interface whose numbers are 1 to 16 by column.
constexpr const char* kCounted = "  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n";
const InterfaceCounters kCountedRead{"eth0", 1, 2, 9, 10};

TEST(NetDevTextTest, readsTheKernelsColumnsOfReceivedAndSent) {
    EXPECT_THAT(parseNetDev(std::string(kHead) + kCounted), ElementsAre(kCountedRead));
}

TEST(NetDevTextTest, readsAListAsAKernelPrintsItWithoutTheLoopback) {
    const std::string text =
        std::string(kHead) +
        "    lo:  135784    1357    0    0    0     0          0         0   135784    1357    0    0    0     0       "
        "0"
        "          0\n"
        "  eth0: 1099511  748211    0   12    0     0          0         3 53687091  524287    0    0    0     0       "
        "0"
        "          0\n"
        "enp129s0f1np1: 70   1    0    0    0     0          0         0      586       7    0    0    0     0       0"
        "          0\n";
    EXPECT_THAT(parseNetDev(text), ElementsAre(InterfaceCounters{"eth0", 1099511, 748211, 53687091, 524287},
                                               InterfaceCounters{"enp129s0f1np1", 70, 1, 586, 7}));
}

TEST(NetDevTextTest, readsWhatThisKernelPrints) {
    std::ostringstream text;
    text << std::ifstream("/proc/self/net/dev").rdbuf();
    ASSERT_NE(text.str().find("lo:"), std::string::npos) << text.str();
    EXPECT_THAT(parseNetDev(text.str()), Each(Field(&InterfaceCounters::name, Ne("lo"))));
}

TEST(NetDevTextTest, needsNoBlankBetweenNameAndNumbers) {
    EXPECT_THAT(parseNetDev("eth0:1234567890 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"),
                ElementsAre(InterfaceCounters{"eth0", 1234567890, 2, 9, 10}));
}

TEST(NetDevTextTest, takesAllOfANameThatHasAColon) {
    EXPECT_THAT(parseNetDev(" eth0:1: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
                            " a:b:c:1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"),
                ElementsAre(InterfaceCounters{"eth0:1", 1, 2, 9, 10}, InterfaceCounters{"a:b:c", 1, 2, 9, 10}));
}

TEST(NetDevTextTest, leavesOutNothingButTheLoopbackItself) {
    EXPECT_THAT(parseNetDev("lo: 1 2 3 4 5 6 7 8 9 10\nlo1: 1 2 3 4 5 6 7 8 9 10\n   lo: 1 2 3 4 5 6 7 8 9 10\n"),
                ElementsAre(Field(&InterfaceCounters::name, "lo1")));
}

TEST(NetDevTextTest, keepsNumbersOf64Bits) {
    constexpr std::uint64_t kMost = 18446744073709551615U;
    EXPECT_THAT(parseNetDev("eth0: 18446744073709551615 9223372036854775808 0 0 0 0 0 0 18446744073709551615 "
                            "18446744073709551615 0\n"),
                ElementsAre(InterfaceCounters{"eth0", kMost, 9223372036854775808U, kMost, kMost}));
}

TEST(NetDevTextTest, keepsTheKernelsOrder) {
    EXPECT_THAT(parseNetDev("b: 1 2 3 4 5 6 7 8 9 10\na: 1 2 3 4 5 6 7 8 9 10\n"),
                ElementsAre(Field(&InterfaceCounters::name, "b"), Field(&InterfaceCounters::name, "a")));
}

TEST(NetDevTextTest, linesThatMakeNoSenseArePassedOver) {
    for (const char* line : {"", "   ", "eth1", ":", "eth1:", ": 1 2 3 4 5 6 7 8 9 10", "eth1: 1 2 3 4 5 6 7 8 9",
                             "eth1: 1 2 3 4 five 6 7 8 9 10", "eth1: -1 2 3 4 5 6 7 8 9 10",
                             "eth1: 18446744073709551616 2 3 4 5 6 7 8 9 10", "1 2 3 4 5 6 7 8 9 10"}) {
        EXPECT_THAT(parseNetDev(std::string(line) + "\n" + kCounted), ElementsAre(kCountedRead)) << line;
    }
}

TEST(NetDevTextTest, theLastLineNeedsNoEnd) {
    EXPECT_THAT(parseNetDev("eth0: 1 2 3 4 5 6 7 8 9 10"), ElementsAre(kCountedRead));
    EXPECT_THAT(parseNetDev("eth0: 1 2 3 4 5 6 7 8 9 "), IsEmpty()) << "cut off";
}

TEST(NetDevTextTest, anEmptyListHasNothing) {
    EXPECT_THAT(parseNetDev(""), IsEmpty());
    EXPECT_THAT(parseNetDev(kHead), IsEmpty());
    EXPECT_THAT(parseNetDev("\n\n"), IsEmpty());
}

}  // namespace
}  // namespace kx::agent::lxc
