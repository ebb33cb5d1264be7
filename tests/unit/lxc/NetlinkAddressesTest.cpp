#include "agent/backends/lxc/NetlinkAddresses.h"

#include <gmock/gmock.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::uint32_t kNumber = 7;

template <typename Plain>
std::string bytesOf(const Plain& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string padded(std::string text) {
    text.resize((text.size() + 3) / 4 * 4);
    return text;
}

std::string message(std::uint16_t type, const std::string& payload, std::uint16_t flags = NLM_F_MULTI,
                    std::uint32_t number = kNumber) {
    nlmsghdr head{};
    head.nlmsg_len = static_cast<std::uint32_t>(sizeof head + payload.size());
    head.nlmsg_type = type;
    head.nlmsg_flags = flags;
    head.nlmsg_seq = number;
    return padded(bytesOf(head) + payload);
}

std::string attribute(std::uint16_t type, const std::string& value) {
    rtattr head{};
    head.rta_len = static_cast<std::uint16_t>(sizeof head + value.size());
    head.rta_type = type;
    return padded(bytesOf(head) + value);
}

std::string addressHead(unsigned interface, unsigned prefix, std::uint8_t family = AF_INET,
                        std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    ifaddrmsg head{};
    head.ifa_family = family;
    head.ifa_prefixlen = static_cast<std::uint8_t>(prefix);
    head.ifa_scope = scope;
    head.ifa_index = interface;
    return bytesOf(head);
}

std::string quad(const Ipv4Bytes& bytes) {
    return bytesOf(bytes);
}

/// As the kernel sends it: other attributes around those that count.
std::string address(unsigned interface, const Ipv4Bytes& bytes, unsigned prefix,
                    std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    return message(RTM_NEWADDR, addressHead(interface, prefix, AF_INET, scope) + attribute(IFA_ADDRESS, quad(bytes)) +
                                    attribute(IFA_LOCAL, quad(bytes)) + attribute(IFA_BROADCAST, quad({9, 9, 9, 9})) +
                                    attribute(IFA_LABEL, std::string("eth0\0", 5)) +
                                    attribute(IFA_FLAGS, bytesOf(std::uint32_t{IFA_F_PERMANENT})));
}

std::string done(int code = 0) {
    return message(NLMSG_DONE, bytesOf(code));
}

AddressDump dumpOf(const std::vector<std::string>& datagrams) {
    AddressDump dump;
    dump.number = kNumber;
    for (const std::string& datagram : datagrams) {
        takeDatagram(dump, datagram);
    }
    return dump;
}

void expectFailure(const std::string& datagram, const char* why) {
    const AddressDump dump = dumpOf({datagram});
    EXPECT_EQ(dump.state, DumpState::Failed) << why;
    EXPECT_THAT(dump.problem, HasSubstr("cannot be understood")) << why;
}

TEST(NetlinkAddressesTest, asksForAllAddressesOfThisFamilyOnly) {
    const std::string question = addressQuestion(kNumber);
    nlmsghdr head{};
    ASSERT_GE(question.size(), sizeof head + sizeof(ifaddrmsg));
    std::memcpy(&head, question.data(), sizeof head);
    EXPECT_EQ(head.nlmsg_len, question.size());
    EXPECT_EQ(head.nlmsg_type, RTM_GETADDR);
    EXPECT_EQ(head.nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
    EXPECT_EQ(head.nlmsg_seq, kNumber);
    EXPECT_EQ(question[sizeof head], AF_INET);
}

TEST(NetlinkAddressesTest, readsAnAnswerInOneDatagram) {
    const AddressDump dump = dumpOf({address(2, {10, 0, 0, 1}, 24) + address(3, {10, 0, 1, 1}, 32) + done()});
    EXPECT_EQ(dump.state, DumpState::Complete);
    EXPECT_FALSE(dump.interrupted);
    EXPECT_THAT(dump.addresses, ElementsAre(KernelAddress{2, {10, 0, 0, 1}, 24}, KernelAddress{3, {10, 0, 1, 1}, 32}));
}

TEST(NetlinkAddressesTest, readsAnAnswerInManyDatagramsAndNothingBehindItsEnd) {
    AddressDump dump = dumpOf({address(2, {10, 0, 0, 1}, 24), address(2, {10, 0, 0, 2}, 24)});
    EXPECT_EQ(dump.state, DumpState::Unfinished);
    takeDatagram(dump, done() + address(2, {10, 0, 0, 3}, 24));
    takeDatagram(dump, address(2, {10, 0, 0, 4}, 24));
    EXPECT_EQ(dump.state, DumpState::Complete);
    EXPECT_EQ(dump.addresses.size(), 2U);
}

TEST(NetlinkAddressesTest, anEmptyListIsAnAnswerToo) {
    const AddressDump dump = dumpOf({done()});
    EXPECT_EQ(dump.state, DumpState::Complete);
    EXPECT_THAT(dump.addresses, IsEmpty());
    EXPECT_EQ(dumpOf({message(NLMSG_DONE, "")}).state, DumpState::Complete) << "an older kernel's end";
}

TEST(NetlinkAddressesTest, anInterfacesOwnAddressIsTakenAndNotThatOfItsPeer) {
    const AddressDump dump =
        dumpOf({message(RTM_NEWADDR, addressHead(2, 32) + attribute(IFA_ADDRESS, quad({10, 0, 0, 99})) +
                                         attribute(IFA_LOCAL, quad({10, 0, 0, 1}))) +
                message(RTM_NEWADDR, addressHead(2, 24) + attribute(IFA_ADDRESS, quad({10, 0, 0, 2}))) +
                message(RTM_NEWADDR, addressHead(2, 24) + attribute(IFA_LABEL, "no address at all")) + done()});
    EXPECT_THAT(dump.addresses, ElementsAre(KernelAddress{2, {10, 0, 0, 1}, 32}, KernelAddress{2, {10, 0, 0, 2}, 24}));
}

TEST(NetlinkAddressesTest, addressesOfScopeHostAreLeftOutAndOthersKept) {
    const AddressDump dump = dumpOf({address(1, {127, 0, 0, 1}, 8, RT_SCOPE_HOST) + address(1, {10, 9, 9, 9}, 32) +
                                     address(2, {169, 254, 1, 1}, 16, RT_SCOPE_LINK) + done()});
    EXPECT_THAT(dump.addresses,
                ElementsAre(KernelAddress{1, {10, 9, 9, 9}, 32}, KernelAddress{2, {169, 254, 1, 1}, 16}));
}

TEST(NetlinkAddressesTest, messagesOfOtherKindsFamiliesAndQuestionsArePassedOver) {
    const std::string ipv6 =
        message(RTM_NEWADDR, addressHead(2, 64, AF_INET6) + attribute(IFA_ADDRESS, std::string(16, '\1')));
    const std::string foreign =
        message(RTM_NEWADDR, addressHead(2, 24) + attribute(IFA_LOCAL, quad({10, 6, 6, 6})), NLM_F_MULTI, kNumber + 1);
    const AddressDump dump =
        dumpOf({ipv6 + foreign + message(NLMSG_DONE, bytesOf(0), NLM_F_MULTI, 0) + message(NLMSG_NOOP, "") +
                message(RTM_DELADDR, addressHead(2, 24) + attribute(IFA_LOCAL, quad({10, 5, 5, 5}))) +
                message(RTM_NEWLINK, "whatever it is") + address(2, {10, 0, 0, 1}, 24) + done()});
    EXPECT_EQ(dump.state, DumpState::Complete);
    EXPECT_THAT(dump.addresses, ElementsAre(KernelAddress{2, {10, 0, 0, 1}, 24}));
}

TEST(NetlinkAddressesTest, unknownAttributesArePassedOver) {
    const AddressDump dump =
        dumpOf({message(RTM_NEWADDR, addressHead(2, 24) + attribute(999, "something new") + attribute(1000, "") +
                                         attribute(IFA_LOCAL, quad({10, 0, 0, 1}))) +
                done()});
    EXPECT_THAT(dump.addresses, ElementsAre(KernelAddress{2, {10, 0, 0, 1}, 24}));
}

TEST(NetlinkAddressesTest, everyPrefixOfAnAnswerIsUnfinishedOrCannotBeUnderstood) {
    const std::string whole = address(2, {10, 0, 0, 1}, 24) + address(3, {10, 0, 1, 1}, 32) + done();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const AddressDump dump = dumpOf({whole.substr(0, length)});
        EXPECT_NE(dump.state, DumpState::Complete) << length << " bytes";
        EXPECT_LE(dump.addresses.size(), 2U);
    }
}

TEST(NetlinkAddressesTest, wrongLengthsFailTheAnswer) {
    std::string short_ = address(2, {10, 0, 0, 1}, 24);
    const std::uint32_t fifteen = 15;
    std::memcpy(short_.data(), &fifteen, sizeof fifteen);
    expectFailure(short_, "a message shorter than its head");
    std::string long_ = address(2, {10, 0, 0, 1}, 24);
    const auto more = static_cast<std::uint32_t>(long_.size() + 1);
    std::memcpy(long_.data(), &more, sizeof more);
    expectFailure(long_, "a message longer than the datagram");
    expectFailure(std::string(4, '\0'), "less than a head");
    expectFailure(message(RTM_NEWADDR, "short"), "less than an address's head");
    expectFailure(message(NLMSG_ERROR, "no"), "an error without a number");
}

TEST(NetlinkAddressesTest, wrongAttributesFailTheAnswer) {
    const auto with = [](const std::string& attributes, unsigned prefix = 24) {
        return message(RTM_NEWADDR, addressHead(2, prefix) + attributes);
    };
    expectFailure(with(attribute(IFA_LOCAL, "abc")), "an address of three bytes");
    expectFailure(with(attribute(IFA_ADDRESS, std::string(16, 'a'))), "an address of sixteen bytes");
    rtattr tooShort{3, IFA_LOCAL};
    expectFailure(with(bytesOf(tooShort) + "abcd"), "an attribute shorter than its head");
    rtattr tooLong{9, IFA_LOCAL};
    expectFailure(with(bytesOf(tooLong) + "abcd"), "an attribute longer than the message");
    expectFailure(with(std::string(3, 'a')), "less than an attribute's head");
    expectFailure(with(attribute(IFA_LOCAL, quad({10, 0, 0, 1})), 33), "a prefix that no mask has");
}

TEST(NetlinkAddressesTest, anAnswerThatIsNotAlignedIsReadAsWell) {
    const std::string shifted = "x" + address(2, {10, 0, 0, 1}, 24) + done();
    AddressDump dump;
    dump.number = kNumber;
    takeDatagram(dump, std::string_view(shifted).substr(1));
    EXPECT_EQ(dump.state, DumpState::Complete);
    EXPECT_THAT(dump.addresses, ElementsAre(KernelAddress{2, {10, 0, 0, 1}, 24}));
}

TEST(NetlinkAddressesTest, anErrorIsTheKernelsWordForIt) {
    const AddressDump refused = dumpOf({message(NLMSG_ERROR, bytesOf(-EPERM) + std::string(16, '\0'))});
    EXPECT_EQ(refused.state, DumpState::Failed);
    EXPECT_THAT(refused.problem, HasSubstr("Operation not permitted"));
    const AddressDump atItsEnd = dumpOf({address(2, {10, 0, 0, 1}, 24) + done(-ENOMEM)});
    EXPECT_EQ(atItsEnd.state, DumpState::Failed);
    EXPECT_THAT(atItsEnd.problem, HasSubstr("Cannot allocate memory"));
    EXPECT_EQ(dumpOf({message(NLMSG_ERROR, bytesOf(0))}).state, DumpState::Unfinished) << "an acknowledgement";
}

TEST(NetlinkAddressesTest, aListThatChangedWhileItWasMadeSaysSo) {
    const AddressDump dump =
        dumpOf({address(2, {10, 0, 0, 1}, 24) + message(NLMSG_DONE, bytesOf(0), NLM_F_MULTI | NLM_F_DUMP_INTR)});
    EXPECT_EQ(dump.state, DumpState::Complete);
    EXPECT_TRUE(dump.interrupted);
}

TEST(PublishableTest, ordersByInterfaceAndKeepsTheKernelsOrderWithin) {
    const auto result = publishable(
        {{3, {10, 0, 3, 1}, 24}, {2, {10, 0, 2, 9}, 24}, {2, {10, 0, 2, 1}, 25}, {1, {10, 0, 1, 1}, 32}}, 100);
    EXPECT_THAT(result, ElementsAre(Address{"10.0.1.1", "255.255.255.255"}, Address{"10.0.2.9", "255.255.255.0"},
                                    Address{"10.0.2.1", "255.255.255.128"}, Address{"10.0.3.1", "255.255.255.0"}));
}

TEST(PublishableTest, ofAnAddressThatIsThereTwiceTheFirstIsTaken) {
    const auto result = publishable({{3, {10, 0, 0, 1}, 16}, {2, {10, 0, 0, 1}, 24}, {2, {10, 0, 0, 1}, 8}}, 100);
    EXPECT_THAT(result, ElementsAre(Address{"10.0.0.1", "255.255.255.0"}));
}

TEST(PublishableTest, takesNoMoreThanItIsTold) {
    const auto result = publishable({{3, {10, 0, 3, 1}, 24}, {2, {10, 0, 2, 1}, 24}, {1, {10, 0, 1, 1}, 24}}, 2);
    EXPECT_THAT(result, ElementsAre(Address{"10.0.2.1", "255.255.255.0"}, Address{"10.0.3.1", "255.255.255.0"}));
}

}  // namespace
}  // namespace kx::agent::lxc
