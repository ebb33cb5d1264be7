#include "agent/backends/lxc/LinkDump.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kx::agent::lxc {
namespace {

/// An interface takes one to three KiB.
constexpr unsigned kMaxDatagrams = 128;

}  // namespace

bool LinkDump::take(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWLINK) {
        return true;
    }
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) {
        return false;
    }
    const auto& head = *static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    if ((head.ifi_flags & IFF_LOOPBACK) != 0) {
        return true;
    }
    const nlattr* const attribute = findAttribute(message, sizeof(ifinfomsg), IFLA_STATS64);
    if (attribute == nullptr) {
        return false;
    }
    // Newer kernels have more of them, older ones fewer; those that count have always been there.
    rtnl_link_stats64 statistics{};
    std::memcpy(&statistics, mnl_attr_get_payload(attribute),
                std::min<std::size_t>(mnl_attr_get_payload_len(attribute), sizeof statistics));
    interfaces_.push_back({static_cast<std::uint32_t>(head.ifi_index), statistics.rx_bytes, statistics.rx_packets,
                           statistics.tx_bytes, statistics.tx_packets});
    return true;
}

std::vector<InterfaceCounters> LinkDump::interfaces() && {
    interfaces_.resize(std::min(interfaces_.size(), kMaxInterfaces));
    return std::move(interfaces_);
}

InterfaceList readInterfaces(int socket) {
    LinkDump dump;
    const DumpResult result = readDump(socket, {RTM_GETLINK, sizeof(ifinfomsg), kMaxDatagrams}, dump);
    if (!result.problem.empty()) {
        return {{}, false, result.problem};
    }
    return {std::move(dump).interfaces(), result.cut, {}};
}

}  // namespace kx::agent::lxc
