// The kernel's answer to the question for all IPv4 addresses of a network namespace (rtnetlink(7), RTM_GETADDR).
//
// No I/O: the question as bytes, the answer from bytes. What is not understood fails the answer as a whole, so that
// half a list is never taken for a whole one. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backends/lxc/Ipv4Text.h"

namespace kx::agent::lxc {

/// An address as the kernel has it.
struct KernelAddress {
    std::uint32_t interface = 0;  ///< index of the interface that has it
    Ipv4Bytes bytes{};            ///< the interface's own address, not that of a peer
    unsigned prefix = 0;          ///< 0 to kMaxPrefix
    bool operator==(const KernelAddress&) const = default;
};

/// How far an answer has come.
enum class DumpState { Unfinished, Complete, Failed };

/// An answer, growing datagram by datagram.
struct AddressDump {
    std::uint32_t number = 0;  ///< of the question; messages with another number are passed over
    DumpState state = DumpState::Unfinished;
    bool interrupted = false;              ///< something changed meanwhile: an address may be missing
    std::vector<KernelAddress> addresses;  ///< in the kernel's order; those of scope host, 127.0.0.1, are left out
    std::string problem;                   ///< in words, when it has failed
};

/// @brief The question.
/// @param number tells its answer from others
/// @return the message's bytes
std::string addressQuestion(std::uint32_t number);

/// @brief Takes one datagram of the answer. Does nothing once the answer is complete or has failed.
/// @param datagram messages one behind the other, at any alignment
void takeDatagram(AddressDump& dump, std::string_view datagram);

/// @brief What is published of an answer.
/// @param most how many addresses, the first ones of the kernel's order
/// @return ordered by interface index, as the kernel has them within one; of an address that is there twice the first
std::vector<Address> publishable(std::vector<KernelAddress> addresses, std::size_t most);

}  // namespace kx::agent::lxc
