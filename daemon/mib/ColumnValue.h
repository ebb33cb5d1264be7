// The typed value through which every column, index and trap variable passes.
//
// Thread promise: a plain value that owns its text; copies are independent of each other.
#pragma once

#include <cstdint>
#include <string>

#include "mib/Varbind.h"

/// @brief An ASN.1 type and a value of it: a number in two 32-bit halves, or a text.
class ColumnValue {
public:
    /// No value: type ASN_NULL.
    ColumnValue() = default;

    /// @brief An empty value: 0, or the empty text.
    /// @param asnType one of the library's ASN_ tags: INTEGER, OCTET_STR, NULL, IPADDRESS, COUNTER, UNSIGNED,
    /// TIMETICKS or COUNTER64
    explicit ColumnValue(std::uint8_t asnType) : type(asnType) {}

    /// @brief Sets a 32-bit number and clears the high half. Does nothing when the type is not a number's.
    void setInt32(std::int32_t value);

    /// @brief Sets both halves; of a 32-bit type only the low one is ever sent. Does nothing when the type is
    /// not a number's.
    void setInt64(std::int64_t value);

    /// @brief Sets the value from a text, as the type wants it.
    ///
    /// A number is read as a signed decimal number up to the first character that does not belong to it; what
    /// does not begin with one gives 0. An IP address that inet_addr rejects becomes 255.255.255.255. A text
    /// is stored as it is, NUL bytes included. Any other type stays empty.
    void setFromString(const std::string& value);

    /// @return true when there is no value, that is, the type is ASN_NULL
    bool isNull() const { return type == ASN_NULL; }

    std::uint8_t getType() const { return type; }
    /// @return the value, or the low half of a 64-bit one; an IP address in host order, its first octet in the
    /// most significant byte
    std::int32_t getLow() const { return low; }
    /// @return the high half of a 64-bit value, otherwise 0
    std::int32_t getHigh() const { return high; }
    const std::string& getText() const { return text; }

    /// @brief Makes a library variable of the value's type, without a name.
    ///
    /// Counters and time ticks of 32 bits, and types that are none of the above, keep their type but get no
    /// value: nothing published uses them.
    /// @return never null; the caller's own
    /// @throws std::bad_alloc when the library has no memory for it
    VarbindPtr toVariable() const;

private:
    bool isNumber() const;

    std::uint8_t type = ASN_NULL;
    std::int32_t low = 0;
    std::int32_t high = 0;
    std::string text;
};
