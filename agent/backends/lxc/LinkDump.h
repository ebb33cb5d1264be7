// The interfaces of the network namespace in which a socket was made, with what has passed through them (rtnetlink(7),
// RTM_GETLINK): index and 64-bit statistics come in one message, so there is no moment between the two in which an
// interface could become another.
//
// Does not wait; see NetlinkDump.h. Any thread, one socket one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/backends/lxc/NetlinkDump.h"

namespace kx::agent::lxc {

/// Most interfaces whose counters are published of a container.
inline constexpr std::size_t kMaxInterfaces = 1024;

/// One interface, as seen from its own network namespace.
struct InterfaceCounters {
    std::uint32_t index = 0;
    std::uint64_t bytesIn = 0;
    std::uint64_t packetsIn = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t packetsOut = 0;
    bool operator==(const InterfaceCounters&) const = default;
};

/// Collects all interfaces but the loopback.
class LinkDump : public DumpReader {
public:
    void begin() override { interfaces_.clear(); }
    bool take(const nlmsghdr& message) override;
    bool isFull() const override { return interfaces_.size() > kMaxInterfaces; }

    /// @return at most kMaxInterfaces, in the kernel's order
    std::vector<InterfaceCounters> interfaces() &&;

private:
    std::vector<InterfaceCounters> interfaces_;
};

/// The interfaces of a namespace, as far as they were taken.
struct InterfaceList {
    std::vector<InterfaceCounters> interfaces;
    bool cut = false;     ///< there are more
    std::string problem;  ///< in words; not empty: the counters are not known
};

/// @param socket see openRouteSocket(); spent afterwards
InterfaceList readInterfaces(int socket);

}  // namespace kx::agent::lxc
