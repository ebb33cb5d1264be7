// One SNMP value on its way from a row, or an alert, to the agent library.
//
// Thread promise: a plain value that owns its text; copies share nothing.
#pragma once

#include <cstdint>
#include <string>

#include "mib/Varbind.h"

/// @brief An ASN.1 type with a number, kept as two halves, or with a text.
class ColumnValue {
public:
    /// The null value, which answers carry as ASN_NULL.
    ColumnValue() = default;

    /// @brief Number 0, or the empty text.
    /// @param asnType a tag of the library: ASN_INTEGER, ASN_OCTET_STR, ASN_NULL, ASN_IPADDRESS, ASN_COUNTER,
    /// ASN_UNSIGNED, ASN_TIMETICKS or ASN_COUNTER64
    explicit ColumnValue(std::uint8_t asnType) : type(asnType) {}

    /// @brief Sets a 32-bit number. A value that is no number (isNumber) ignores this and the next setter.
    void setInt32(std::int32_t value);

    /// @brief Sets a 64-bit number, of which a 32-bit type sends only the lower half.
    void setInt64(std::int64_t value);

    /// @brief Parses a text into the value's type.
    ///
    /// Numbers are signed decimals with optional leading blanks; anything after the last digit is ignored, and a text
    /// without a leading number is 0. IP addresses are parsed by inet_addr, whose error value is an address, too:
    /// 255.255.255.255. Texts are taken over with their NUL bytes. All other types ignore the text.
    void setFromString(const std::string& value);

    /// @return whether this is the null value
    bool isNull() const { return type == ASN_NULL; }

    std::uint8_t getType() const { return type; }
    /// @return the number, or its lower half; of an IP address its host-order form, 10.0.0.1 being 0x0a000001
    std::int32_t getLow() const { return low; }
    /// @return the upper half, which only 64-bit numbers use
    std::int32_t getHigh() const { return high; }
    const std::string& getText() const { return text; }

    /// @brief Gives a library variable the value's type and the value as answers and traps carry it: numbers as
    /// native longs, a 64-bit number as the library's pair of halves, an IP address as its four bytes in network order.
    ///
    /// Counters and time ticks of 32 bits, and types other than those above, set the type alone: nothing published
    /// has them.
    /// @param variable keeps its name
    /// @throws std::bad_alloc when the library has no memory for the value
    void writeTo(netsnmp_variable_list& variable) const;

    /// @brief The same as the library's encoder of indexes reads it: an IP address in host order, a number without the
    /// sign that would make a sub-identifier of 64 bits out of one of 32.
    void writeIndexTo(netsnmp_variable_list& variable) const;

    /// @brief Makes a library variable with the value, without a name.
    /// @return never null; the caller's
    /// @throws std::bad_alloc when the library has no memory for it
    VarbindPtr toVariable() const;

private:
    bool isNumber() const;

    std::uint8_t type = ASN_NULL;
    std::int32_t low = 0;
    std::int32_t high = 0;
    std::string text;
};
