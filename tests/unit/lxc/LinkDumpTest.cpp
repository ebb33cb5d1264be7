#include "agent/backends/lxc/LinkDump.h"

#include <gmock/gmock.h>
#include <linux/if.h>
#include <linux/if_link.h>

#include <limits>

#include "tests/unit/lxc/NetlinkBytes.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

std::string head(int index, unsigned flags = IFF_UP) {
    ifinfomsg made{};
    made.ifi_index = index;
    made.ifi_flags = flags;
    return bytesOf(made);
}

std::string statistics(std::uint64_t bytesIn, std::uint64_t packetsIn, std::uint64_t bytesOut,
                       std::uint64_t packetsOut) {
    rtnl_link_stats64 made{};
    made.rx_bytes = bytesIn;
    made.rx_packets = packetsIn;
    made.tx_bytes = bytesOut;
    made.tx_packets = packetsOut;
    made.rx_errors = 77;
    return bytesOf(made);
}

/// As the kernel sends it: the 32-bit statistics stand in front of those that count.
std::string link(int index, const std::string& values, unsigned flags = IFF_UP) {
    return message(RTM_NEWLINK, head(index, flags) + attribute(IFLA_IFNAME, std::string("eth0\0", 5)) +
                                    attribute(IFLA_STATS, std::string(sizeof(rtnl_link_stats), '\1')) +
                                    attribute(IFLA_STATS64, values) + attribute(999, "something new"));
}

std::vector<InterfaceCounters> readOf(const std::string& datagram) {
    LinkDump dump;
    EXPECT_EQ(answerOf({datagram + done()}, dump).state, DumpState::Complete);
    return std::move(dump).interfaces();
}

TEST(LinkDump, ReadsIndexAndStatisticsInTheKernelsOrder) {
    EXPECT_THAT(readOf(link(4, statistics(1, 2, 3, 4)) + link(2, statistics(kMost, kMost - 1, 5, 6))),
                ElementsAre(InterfaceCounters{4, 1, 2, 3, 4}, InterfaceCounters{2, kMost, kMost - 1, 5, 6}));
}

TEST(LinkDump, LeavesOutTheLoopbackAndOtherMessages) {
    EXPECT_THAT(readOf(link(1, statistics(9, 9, 9, 9), IFF_UP | IFF_LOOPBACK) + message(RTM_NEWADDR, "whatever it is") +
                       message(RTM_DELLINK, head(3)) + link(2, statistics(1, 2, 3, 4))),
                ElementsAre(InterfaceCounters{2, 1, 2, 3, 4}));
}

TEST(LinkDump, TakesShorterAndLongerStatisticsOfOtherKernels) {
    const std::string all = statistics(1, 2, 3, 4);
    EXPECT_THAT(readOf(link(2, all.substr(0, 8 * 8)) + link(3, all + std::string(16, 'x'))),
                ElementsAre(InterfaceCounters{2, 1, 2, 3, 4}, InterfaceCounters{3, 1, 2, 3, 4}));
}

TEST(LinkDump, DoesNotTakeMissingStatisticsForZeros) {
    for (const std::string& odd : {message(RTM_NEWLINK, head(2)), message(RTM_NEWLINK, "short")}) {
        LinkDump dump;
        EXPECT_EQ(answerOf({odd}, dump).state, DumpState::Failed);
    }
}

TEST(LinkDump, TakesSoManyInterfacesAndNoMore) {
    LinkDump dump;
    DumpAnswer answer;
    answer.number = kDumpNumber;
    for (int index = 1; index <= static_cast<int>(kMaxInterfaces) + 5; ++index) {
        EXPECT_EQ(dump.isFull(), index > static_cast<int>(kMaxInterfaces) + 1);
        take(answer, link(index, statistics(1, 2, 3, 4)), dump);
    }
    EXPECT_THAT(std::move(dump).interfaces(), SizeIs(kMaxInterfaces));
}

}  // namespace
}  // namespace kx::agent::lxc
