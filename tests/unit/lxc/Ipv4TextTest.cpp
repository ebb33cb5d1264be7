#include "agent/backends/lxc/Ipv4Text.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Ipv4TextTest, everyPrefixHasItsMask) {
    EXPECT_EQ(maskText(0), "0.0.0.0");
    EXPECT_EQ(maskText(1), "128.0.0.0");
    EXPECT_EQ(maskText(8), "255.0.0.0");
    EXPECT_EQ(maskText(9), "255.128.0.0");
    EXPECT_EQ(maskText(22), "255.255.252.0");
    EXPECT_EQ(maskText(24), "255.255.255.0");
    EXPECT_EQ(maskText(31), "255.255.255.254");
    EXPECT_EQ(maskText(32), "255.255.255.255");
    for (unsigned prefix = 0; prefix <= kMaxPrefix; ++prefix) {
        in_addr mask{};
        ASSERT_EQ(::inet_pton(AF_INET, maskText(prefix).c_str(), &mask), 1) << prefix;
        const std::uint64_t clear = std::uint64_t{0xffffffff} - ntohl(mask.s_addr) + 1;
        EXPECT_EQ(clear, std::uint64_t{1} << (kMaxPrefix - prefix)) << prefix;
    }
}

TEST(Ipv4TextTest, anAddressIsWrittenWithItsMask) {
    EXPECT_EQ(addressOf({192, 0, 2, 255}, 26), (Address{"192.0.2.255", "255.255.255.192"}));
}

TEST(Ipv4TextTest, configuredAddressesAreReadLineByLine) {
    EXPECT_THAT(configuredAddresses("10.0.0.1/24\n10.0.0.2/25\n\n0.0.0.0/0\n10.1.0.1/32"),
                ElementsAre(Address{"10.0.0.1", "255.255.255.0"}, Address{"10.0.0.2", "255.255.255.128"},
                            Address{"0.0.0.0", "0.0.0.0"}, Address{"10.1.0.1", "255.255.255.255"}));
    EXPECT_THAT(configuredAddresses(""), IsEmpty());
    EXPECT_THAT(configuredAddresses("\n\n"), IsEmpty());
}

TEST(Ipv4TextTest, ofAnAddressConfiguredTwiceTheFirstIsTaken) {
    EXPECT_THAT(configuredAddresses("10.0.0.1/24\n10.0.0.1/16\n10.0.0.2/24\n10.0.0.1/24\n"),
                ElementsAre(Address{"10.0.0.1", "255.255.255.0"}, Address{"10.0.0.2", "255.255.255.0"}));
}

TEST(Ipv4TextTest, linesThatAreNoAddressesArePassedOver) {
    for (const char* line :
         {"dhcp", "10.0.0.1", "10.0.0.1/", "10.0.0.1/33", "10.0.0.1/-1", "10.0.0.1/24x", "10.0.0/24", "10.0.0.256/24",
          "10.0.0.1 /24", "fe80::1/64", "/24", "10.0.0.1/24 10.0.0.255", "10.0.0.1/99999999999999999999"}) {
        EXPECT_THAT(configuredAddresses(std::string(line) + "\n10.0.0.9/8"),
                    ElementsAre(Address{"10.0.0.9", "255.0.0.0"}))
            << line;
    }
}

}  // namespace
}  // namespace kx::agent::lxc
