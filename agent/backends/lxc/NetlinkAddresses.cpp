#include "agent/backends/lxc/NetlinkAddresses.h"

#include <fmt/format.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>

namespace kx::agent::lxc {
namespace {

/// What the kernel writes is aligned, a view of bytes need not be.
template <typename Head>
std::optional<Head> headOf(std::string_view bytes) {
    if (bytes.size() < sizeof(Head)) {
        return std::nullopt;
    }
    Head head;
    std::memcpy(&head, bytes.data(), sizeof head);
    return head;
}

void fail(AddressDump& dump, std::string problem) {
    dump.state = DumpState::Failed;
    dump.problem = std::move(problem);
}

void failUnread(AddressDump& dump) {
    fail(dump, "the kernel's answer cannot be understood");
}

/// @param code 0, or an error number with its sign changed
bool failOnError(AddressDump& dump, int code) {
    if (code == 0) {
        return false;
    }
    fail(dump,
         fmt::format("the kernel answers: {}", std::strerror(static_cast<int>(0U - static_cast<unsigned>(code)))));
    return true;
}

/// The two attributes that tell where a message's address is.
struct Places {
    std::optional<Ipv4Bytes> local;
    std::optional<Ipv4Bytes> address;  ///< on a point-to-point link the peer's
};

/// @return nothing when the attributes do not fit into each other
std::optional<Places> placesIn(std::string_view attributes) {
    Places places;
    while (!attributes.empty()) {
        const auto head = headOf<rtattr>(attributes);
        if (!head || head->rta_len < sizeof(rtattr) || head->rta_len > attributes.size()) {
            return std::nullopt;
        }
        const std::string_view value = attributes.substr(sizeof(rtattr), head->rta_len - sizeof(rtattr));
        if (head->rta_type == IFA_LOCAL || head->rta_type == IFA_ADDRESS) {
            if (value.size() != sizeof(Ipv4Bytes)) {
                return std::nullopt;
            }
            (head->rta_type == IFA_LOCAL ? places.local : places.address) = headOf<Ipv4Bytes>(value);
        }
        attributes.remove_prefix(std::min<std::size_t>(attributes.size(), RTA_ALIGN(head->rta_len)));
    }
    return places;
}

void takeAddress(AddressDump& dump, std::string_view payload) {
    const auto head = headOf<ifaddrmsg>(payload);
    if (!head) {
        failUnread(dump);
        return;
    }
    if (head->ifa_family != AF_INET || head->ifa_scope == RT_SCOPE_HOST) {
        return;
    }
    const auto places = placesIn(payload.substr(sizeof(ifaddrmsg)));
    if (!places || head->ifa_prefixlen > kMaxPrefix) {
        failUnread(dump);
        return;
    }
    if (const auto& own = places->local ? places->local : places->address) {
        dump.addresses.push_back({head->ifa_index, *own, head->ifa_prefixlen});
    }
}

void takeEnd(AddressDump& dump, std::string_view payload) {
    // The kernel tells here how its list ended; older ones leave it out.
    if (!failOnError(dump, headOf<int>(payload).value_or(0))) {
        dump.state = DumpState::Complete;
    }
}

void takeMessage(AddressDump& dump, const nlmsghdr& head, std::string_view payload) {
    if (head.nlmsg_seq != dump.number) {
        return;
    }
    dump.interrupted = dump.interrupted || (head.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    switch (head.nlmsg_type) {
        case RTM_NEWADDR:
            takeAddress(dump, payload);
            break;
        case NLMSG_DONE:
            takeEnd(dump, payload);
            break;
        case NLMSG_ERROR:
            if (const auto code = headOf<int>(payload)) {
                failOnError(dump, *code);
            } else {
                failUnread(dump);
            }
            break;
        default:
            break;
    }
}

}  // namespace

std::string addressQuestion(std::uint32_t number) {
    struct {
        nlmsghdr head;
        ifaddrmsg body;
    } question{};
    static_assert(sizeof question == NLMSG_HDRLEN + sizeof(ifaddrmsg));
    question.head.nlmsg_len = sizeof question;
    question.head.nlmsg_type = RTM_GETADDR;
    question.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.head.nlmsg_seq = number;
    question.body.ifa_family = AF_INET;
    return {reinterpret_cast<const char*>(&question), sizeof question};
}

void takeDatagram(AddressDump& dump, std::string_view datagram) {
    while (dump.state == DumpState::Unfinished && !datagram.empty()) {
        const auto head = headOf<nlmsghdr>(datagram);
        if (!head || head->nlmsg_len < sizeof(nlmsghdr) || head->nlmsg_len > datagram.size()) {
            failUnread(dump);
            return;
        }
        takeMessage(dump, *head, datagram.substr(sizeof(nlmsghdr), head->nlmsg_len - sizeof(nlmsghdr)));
        datagram.remove_prefix(std::min<std::size_t>(datagram.size(), NLMSG_ALIGN(head->nlmsg_len)));
    }
}

std::vector<Address> publishable(std::vector<KernelAddress> addresses, std::size_t most) {
    addresses.resize(std::min(addresses.size(), most));
    std::stable_sort(addresses.begin(), addresses.end(), [](const KernelAddress& one, const KernelAddress& other) {
        return one.interface < other.interface;
    });
    std::vector<Address> result;
    std::set<Ipv4Bytes> seen;
    for (const KernelAddress& address : addresses) {
        if (seen.insert(address.bytes).second) {
            result.push_back(addressOf(address.bytes, address.prefix));
        }
    }
    return result;
}

}  // namespace kx::agent::lxc
