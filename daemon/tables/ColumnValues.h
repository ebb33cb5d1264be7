// Column values made in one step, for the row sources.
//
// Thread promise: plain functions; any thread.
#pragma once

#include <cstdint>
#include <string>

#include "mib/ColumnValue.h"

/// @brief A 32-bit number.
/// @param asnType a number's ASN_ tag
inline ColumnValue numberColumn(std::uint8_t asnType, std::int32_t value) {
    ColumnValue column(asnType);
    column.setInt32(value);
    return column;
}

/// @brief A 64-bit counter.
inline ColumnValue counterColumn(std::int64_t value) {
    ColumnValue column(ASN_COUNTER64);
    column.setInt64(value);
    return column;
}

/// @brief What a text says as a value of a type, see ColumnValue::setFromString.
inline ColumnValue parsedColumn(std::uint8_t asnType, const std::string& text) {
    ColumnValue column(asnType);
    column.setFromString(text);
    return column;
}

/// @brief A text as it is.
inline ColumnValue textColumn(const std::string& text) {
    return parsedColumn(ASN_OCTET_STR, text);
}
