// The 16-byte identifier of an environment or of the server. A value type.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kx::agent {

/// @brief An environment identifier: a UUID. Default-made it is the nil UUID.
struct Eid {
    std::array<std::uint8_t, 16> bytes{};

    auto operator<=>(const Eid&) const = default;  // NOLINT(modernize-use-nullptr): about code the compiler makes

    /// @return the usual form, 36 lower-case characters
    std::string toString() const;

    /// @return the 16 bytes as they go onto the wire
    std::string toWire() const;

    /// @param wire what came from the wire
    /// @return nothing when it has not 16 bytes
    static std::optional<Eid> fromWire(std::string_view wire);

    /// @param text a UUID in its usual form, either case
    /// @return nothing when the text is not one
    static std::optional<Eid> parse(std::string_view text);

    /// @brief A name-based identifier (UUID version 5, RFC 4122 section 4.3): the same machine, backend and
    /// name give the same identifier, so identifiers survive restarts without being stored.
    /// @param machineId what tells this machine from others, see MachineId.h
    /// @param name backend and name, e.g. "lxc/web"
    static Eid fromName(std::string_view machineId, std::string_view name);
};

/// For maps. Identifiers may be chosen by who describes a host, so all bytes count.
struct EidHash {
    std::size_t operator()(const Eid& eid) const;
};

}  // namespace kx::agent
