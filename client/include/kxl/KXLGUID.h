// 16-byte identifiers, held by value.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// @brief Sixteen bytes and their textual form.
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

/// @brief A general identifier, e.g. of a base sample.
class KXLGUID : public KXLGUIDBase {
public:
    using KXLGUIDBase::KXLGUIDBase;
};

/// @brief The identifier of an environment or of the server.
class KXLEID : public KXLGUIDBase {
public:
    using KXLGUIDBase::KXLGUIDBase;

    /// No environment: the empty identifier. Usable before main() runs.
    static const KXLEID EID_INVALID;
};
