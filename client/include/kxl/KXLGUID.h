// Identifiers of what the agent knows, in the format of a UUID.
//
// Thread promise: plain values.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// @brief The bytes of a UUID, and how they are written.
class KXLGUIDBase {
public:
    static constexpr std::size_t size = 16;
    using Bytes = std::array<std::uint8_t, size>;

    /// The empty identifier: all bytes zero.
    constexpr KXLGUIDBase() = default;
    constexpr explicit KXLGUIDBase(const Bytes& bytes) : bytes_(bytes) {}

    /// @return the usual form of a UUID, 36 lower-case characters (RFC 4122 section 3)
    std::string toString() const;

    /// @brief Reads the usual form, in either case.
    /// @return 0 when the text is an identifier, -1 when it is not; then the value is unchanged
    int fromString(std::string_view text);

    constexpr const Bytes& bytes() const { return bytes_; }
    constexpr bool isEmpty() const { return bytes_ == Bytes{}; }

    constexpr bool operator==(const KXLGUIDBase& other) const { return bytes_ == other.bytes_; }
    constexpr auto operator<=>(const KXLGUIDBase& other) const { return bytes_ <=> other.bytes_; }

private:
    Bytes bytes_{};
};

/// @brief Names something that is no environment: a base sample, a user.
class KXLGUID : public KXLGUIDBase {
public:
    using KXLGUIDBase::KXLGUIDBase;
};

/// @brief Names a container, a host, or the agent on it. Another type, so that the two are not mistaken for each other.
class KXLEID : public KXLGUIDBase {
public:
    using KXLGUIDBase::KXLGUIDBase;

    /// Stands for nobody, e.g. for an agent that was never reached. All bytes are zero; usable before main() runs.
    static const KXLEID EID_INVALID;
};
