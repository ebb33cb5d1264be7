// The kernel's list of network interfaces with what has passed through them (/proc/PID/net/dev, proc(5)).
//
// Plain function, any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kx::agent::lxc {

/// One interface, as seen from its own network namespace.
struct InterfaceCounters {
    std::string name;
    std::uint64_t bytesIn = 0;
    std::uint64_t packetsIn = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t packetsOut = 0;
    bool operator==(const InterfaceCounters&) const = default;
};

/// @brief Reads the list.
/// @param text the file's content; lines that make no sense are passed over
/// @return all interfaces but the loopback "lo", in the kernel's order
std::vector<InterfaceCounters> parseNetDev(std::string_view text);

}  // namespace kx::agent::lxc
