// One environment as the agent knows it: plain values, no thread of its own.
//
// Backends make these; the inventory compares them, numbers the changes and turns them into wire messages.
// Texts are bytes: a container's name may hold anything its owner typed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/inventory/Eid.h"

namespace kx::agent {

/// First status integer of an environment.
enum class State : std::int32_t { Unknown = 0, Stopped = 1, Running = 2, Frozen = 3 };

/// Second status integer of an environment.
enum class Transition : std::int32_t { None = 0, Starting = 1, Stopping = 2, Freezing = 3, Thawing = 4, Aborting = 5 };

/// Type text of a container, and of the host itself.
inline constexpr const char* kContainerType = "lumetra";
inline constexpr const char* kHostType = "host";

/// The name behind the host's own identifier. Clients remember the identifier, so it must not change.
inline constexpr const char* kHostName = "host";

/// A template: an operating system's or an application's.
struct Template {
    std::string name;
    std::string version;
    bool operator==(const Template&) const = default;
};

/// An address with its mask, both as dotted quads.
struct Address {
    std::string address;
    std::string mask;
    bool operator==(const Address&) const = default;
};

/// An IPv6 address in its shortest form (RFC 5952).
struct Inet6Address {
    std::string address;
    std::uint32_t prefixLength = 0;  ///< 0 to 128
    bool operator==(const Inet6Address&) const = default;
};

/// What the management agent publishes of one container, or of the host.
struct Environment {
    Eid eid;
    std::string type = kContainerType;
    std::int32_t state = static_cast<std::int32_t>(State::Unknown);         ///< any number from a described host
    std::int32_t transition = static_cast<std::int32_t>(Transition::None);  ///< likewise
    std::string name;
    std::optional<std::int32_t> veid;  ///< absent: the configuration has no number
    std::optional<std::string> hostname;
    std::optional<std::string> description;
    std::optional<Template> osTemplate;
    std::optional<Eid> baseSample;
    std::optional<std::vector<Address>> addresses;            ///< absent: the configuration does not have the list
    std::optional<std::vector<Template>> templates;           ///< likewise
    std::optional<std::vector<Inet6Address>> inet6Addresses;  ///< absent: they are not known

    bool operator==(const Environment&) const = default;
};

}  // namespace kx::agent
