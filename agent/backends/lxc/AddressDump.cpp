#include "agent/backends/lxc/AddressDump.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "agent/backends/lxc/Ipv4Text.h"

namespace kx::agent::lxc {
namespace {

/// Some 12,000 addresses: most may be of a kind that is not published.
constexpr unsigned kMaxDatagrams = 32;

/// The queue of notices holds fewer; a flood of new ones must not keep the reader.
constexpr unsigned kMaxNotices = 64;

constexpr std::size_t kInetBytes = 4;
constexpr std::size_t kInet6Bytes = 16;

/// @return the attribute that holds the interface's own address; null when there is none. On a point-to-point link
/// IFA_ADDRESS is the peer's.
const nlattr* ownAddressIn(const nlmsghdr& message) {
    const nlattr* const local = findAttribute(message, sizeof(ifaddrmsg), IFA_LOCAL);
    return local != nullptr ? local : findAttribute(message, sizeof(ifaddrmsg), IFA_ADDRESS);
}

/// @return ordered by interface, each address once, at most kMaxAddresses
std::vector<KernelAddress> publishable(std::vector<KernelAddress> addresses) {
    addresses.resize(std::min(addresses.size(), kMaxAddresses));
    std::stable_sort(addresses.begin(), addresses.end(), [](const KernelAddress& one, const KernelAddress& other) {
        return one.interface < other.interface;
    });
    std::set<std::array<std::uint8_t, kInet6Bytes>> seen;
    addresses.erase(std::remove_if(addresses.begin(), addresses.end(),
                                   [&](const KernelAddress& one) { return !seen.insert(one.bytes).second; }),
                    addresses.end());
    return addresses;
}

Inet6Address inet6Of(const KernelAddress& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET6, address.bytes.data(), text.data(), text.size());
    return {text.data(), address.prefix};
}

}  // namespace

void AddressDump::begin() {
    inet_.clear();
    inet6_.clear();
}

bool AddressDump::isFull() const {
    return inet_.size() > kMaxAddresses && inet6_.size() > kMaxAddresses;
}

bool AddressDump::take(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWADDR) {
        return true;
    }
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifaddrmsg)) {
        return false;
    }
    const auto& head = *static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&message));
    const bool inet6 = head.ifa_family == AF_INET6;
    if ((!inet6 && head.ifa_family != AF_INET) || head.ifa_scope >= (inet6 ? RT_SCOPE_LINK : RT_SCOPE_HOST)) {
        return true;
    }
    const nlattr* const own = ownAddressIn(message);
    if (own == nullptr) {
        return true;
    }
    const std::size_t bytes = inet6 ? kInet6Bytes : kInetBytes;
    if (mnl_attr_get_payload_len(own) != bytes || head.ifa_prefixlen > 8 * bytes) {
        return false;
    }
    KernelAddress address{head.ifa_index, {}, head.ifa_prefixlen};
    std::memcpy(address.bytes.data(), mnl_attr_get_payload(own), bytes);
    auto& list = inet6 ? inet6_ : inet_;
    if (list.size() <= kMaxAddresses) {
        list.push_back(address);
    }
    return true;
}

AddressList AddressDump::list() const {
    AddressList list;
    list.cut = inet_.size() > kMaxAddresses || inet6_.size() > kMaxAddresses;
    for (const KernelAddress& one : publishable(inet_)) {
        list.addresses.push_back(addressOf({one.bytes[0], one.bytes[1], one.bytes[2], one.bytes[3]}, one.prefix));
    }
    for (const KernelAddress& one : publishable(inet6_)) {
        list.inet6Addresses.push_back(inet6Of(one));
    }
    return list;
}

OwnedDescriptor openNoticeSocket() {
    OwnedDescriptor socket = openRouteSocket();
    // The kernel makes this the smallest size it has. What does not fit is dropped, which costs the host nothing.
    const int smallest = 1;
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (socket && (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest) != 0 ||
                   ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&groups), sizeof groups) != 0)) {
        const int why = errno;
        socket.reset();
        errno = why;
    }
    return socket;
}

void dropNotices(int socket) {
    char byte = 0;
    for (unsigned i = 0; i < kMaxNotices; ++i) {
        // An error here is that of a queue that has overflown: what is still in it follows.
        if (::recv(socket, &byte, sizeof byte, MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
    }
}

AddressList readAddresses(int socket) {
    AddressDump dump;
    const DumpResult result = readDump(socket, {RTM_GETADDR, sizeof(ifaddrmsg), kMaxDatagrams}, dump);
    AddressList list = result.problem.empty() ? dump.list() : AddressList();
    list.problem = result.problem;
    list.cut = list.cut || result.cut;
    return list;
}

}  // namespace kx::agent::lxc
