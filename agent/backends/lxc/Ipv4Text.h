// IPv4 addresses and masks as the dotted quads that are published. Pure functions, any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// An address's four bytes in the order in which they are written.
using Ipv4Bytes = std::array<std::uint8_t, 4>;

/// Longest prefix of an IPv4 address, in bits.
inline constexpr unsigned kMaxPrefix = 32;

/// @param prefix length of the network's part, 0 to kMaxPrefix bits
/// @return the mask, e.g. "255.255.255.0" for 24
std::string maskText(unsigned prefix);

/// @brief An address with its mask, as published.
/// @param prefix see maskText()
Address addressOf(const Ipv4Bytes& bytes, unsigned prefix);

/// @brief Reads the addresses of a container's configuration.
/// @param lines one "ADDRESS/PREFIX" a line, as liblxc hands them out: it has looked through them, and has put the
/// prefix that it is going to use where the configuration has none. A line that is not of this form is passed over.
/// @return in the order of the lines; of an address that is there twice the first, for it identifies what is published
std::vector<Address> configuredAddresses(std::string_view lines);

}  // namespace kx::agent::lxc
