#include "agent/backends/lxc/AddressDump.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/if_addr.h>
#include <sys/socket.h>

#include "tests/unit/lxc/NetlinkBytes.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string head(unsigned interface, unsigned prefix, std::uint8_t family = AF_INET,
                 std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    ifaddrmsg made{};
    made.ifa_family = family;
    made.ifa_prefixlen = static_cast<std::uint8_t>(prefix);
    made.ifa_scope = scope;
    made.ifa_index = interface;
    return bytesOf(made);
}

std::string packed(const char* text) {
    std::string bytes(16, '\0');
    if (::inet_pton(AF_INET6, text, bytes.data()) != 1) {
        ::inet_pton(AF_INET, text, bytes.data());
        bytes.resize(4);
    }
    return bytes;
}

/// As the kernel sends it: other attributes around those that count.
std::string address(unsigned interface, const char* text, unsigned prefix, std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    return message(RTM_NEWADDR, head(interface, prefix, AF_INET, scope) + attribute(IFA_ADDRESS, packed(text)) +
                                    attribute(IFA_LOCAL, packed(text)) + attribute(IFA_BROADCAST, packed("9.9.9.9")) +
                                    attribute(IFA_LABEL, std::string("eth0\0", 5)) +
                                    attribute(IFA_FLAGS, bytesOf(std::uint32_t{IFA_F_PERMANENT})));
}

/// The kernel sends no IFA_LOCAL for these.
std::string inet6(unsigned interface, const char* text, unsigned prefix, std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    return message(RTM_NEWADDR, head(interface, prefix, AF_INET6, scope) + attribute(IFA_ADDRESS, packed(text)) +
                                    attribute(IFA_CACHEINFO, std::string(16, '\1')));
}

AddressList listOf(const std::string& datagram) {
    AddressDump dump;
    EXPECT_EQ(answerOf({datagram + done()}, dump).state, DumpState::Complete);
    return dump.list();
}

void expectFailure(const std::string& datagram, const char* why) {
    AddressDump dump;
    EXPECT_EQ(answerOf({datagram}, dump).state, DumpState::Failed) << why;
}

TEST(AddressDump, TakesTheInterfacesOwnAddressAndNotThatOfItsPeer) {
    const AddressList list =
        listOf(message(RTM_NEWADDR, head(2, 32) + attribute(IFA_ADDRESS, packed("10.0.0.99")) +
                                        attribute(IFA_LOCAL, packed("10.0.0.1"))) +
               message(RTM_NEWADDR, head(2, 24) + attribute(IFA_ADDRESS, packed("10.0.0.2"))) +
               message(RTM_NEWADDR, head(2, 24) + attribute(IFA_LABEL, "no address at all")) +
               message(RTM_NEWADDR, head(2, 128, AF_INET6) + attribute(IFA_LOCAL, packed("fd00::1")) +
                                        attribute(IFA_ADDRESS, packed("fd00::99"))));
    EXPECT_THAT(list.addresses,
                ElementsAre(Address{"10.0.0.1", "255.255.255.255"}, Address{"10.0.0.2", "255.255.255.0"}));
    EXPECT_THAT(list.inet6Addresses, ElementsAre(Inet6Address{"fd00::1", 128}));
}

TEST(AddressDump, LeavesOutScopeHostAndOfIpv6ScopeLinkToo) {
    const AddressList list = listOf(address(1, "127.0.0.1", 8, RT_SCOPE_HOST) + address(1, "10.9.9.9", 32) +
                                    address(2, "169.254.1.1", 16, RT_SCOPE_LINK) + inet6(1, "::1", 128, RT_SCOPE_HOST) +
                                    inet6(2, "fe80::1", 64, RT_SCOPE_LINK) + inet6(2, "2001:db8::1", 64) +
                                    inet6(2, "fec0::1", 64, RT_SCOPE_SITE));
    EXPECT_THAT(list.addresses,
                ElementsAre(Address{"10.9.9.9", "255.255.255.255"}, Address{"169.254.1.1", "255.255.0.0"}));
    EXPECT_THAT(list.inet6Addresses, ElementsAre(Inet6Address{"2001:db8::1", 64}, Inet6Address{"fec0::1", 64}));
}

TEST(AddressDump, PassesOverOtherMessagesFamiliesAndAttributes) {
    const AddressList list =
        listOf(message(RTM_DELADDR, head(2, 24) + attribute(IFA_LOCAL, packed("10.5.5.5"))) +
               message(RTM_NEWLINK, "whatever it is") +
               message(RTM_NEWADDR, head(2, 8, AF_DECnet) + attribute(IFA_ADDRESS, "ab")) +
               message(RTM_NEWADDR, head(2, 24) + attribute(999, "something new") + attribute(1000, "") +
                                        attribute(IFA_LOCAL, packed("10.0.0.1"))));
    EXPECT_EQ(list, (AddressList{{{"10.0.0.1", "255.255.255.0"}}, {}, false, {}}));
}

TEST(AddressDump, DoesNotUnderstandAddressesOfAWrongSize) {
    expectFailure(message(RTM_NEWADDR, "short"), "less than an address's head");
    expectFailure(message(RTM_NEWADDR, head(2, 24) + attribute(IFA_LOCAL, "abc")), "an address of three bytes");
    expectFailure(message(RTM_NEWADDR, head(2, 24) + attribute(IFA_ADDRESS, packed("fd00::1"))), "one of sixteen");
    expectFailure(message(RTM_NEWADDR, head(2, 64, AF_INET6) + attribute(IFA_ADDRESS, packed("10.0.0.1"))),
                  "an IPv6 address of four");
    expectFailure(address(2, "10.0.0.1", 33), "a prefix that no mask has");
    expectFailure(inet6(2, "fd00::1", 129), "a prefix that no network has");
}

TEST(AddressDump, NeverReadsBeyondAnAttributeThatIsTooLong) {
    const rtattr tooLong{9, IFA_LOCAL};
    const AddressList list = listOf(message(RTM_NEWADDR, head(2, 24) + bytesOf(tooLong) + "abcd"));
    EXPECT_THAT(list.addresses, IsEmpty());
}

TEST(AddressDump, OrdersByInterfaceAndKeepsTheKernelsOrderWithin) {
    const AddressList list =
        listOf(address(3, "10.0.3.1", 24) + address(2, "10.0.2.9", 24) + address(2, "10.0.2.1", 25) +
               address(1, "10.0.1.1", 32) + inet6(3, "fd00:3::1", 64) + inet6(1, "fd00:1::1", 64));
    EXPECT_THAT(list.addresses,
                ElementsAre(Address{"10.0.1.1", "255.255.255.255"}, Address{"10.0.2.9", "255.255.255.0"},
                            Address{"10.0.2.1", "255.255.255.128"}, Address{"10.0.3.1", "255.255.255.0"}));
    EXPECT_THAT(list.inet6Addresses, ElementsAre(Inet6Address{"fd00:1::1", 64}, Inet6Address{"fd00:3::1", 64}));
}

TEST(AddressDump, OfAnAddressThatIsThereTwiceTheFirstIsTaken) {
    const AddressList list =
        listOf(address(3, "10.0.0.1", 16) + address(2, "10.0.0.1", 24) + address(2, "10.0.0.1", 8));
    EXPECT_THAT(list.addresses, ElementsAre(Address{"10.0.0.1", "255.255.255.0"}));
}

TEST(AddressDump, ForgetsWhatItHasWhenItBeginsAnew) {
    AddressDump dump;
    answerOf({address(2, "10.0.0.1", 24) + inet6(2, "fd00::1", 64)}, dump);
    dump.begin();
    EXPECT_EQ(dump.list(), AddressList());
}

}  // namespace
}  // namespace kx::agent::lxc
