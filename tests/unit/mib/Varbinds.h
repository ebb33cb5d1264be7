// Reads the agent library's variables back for comparison.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mib/Varbind.h"

namespace kx::test {

using Oid = std::vector<oid>;

/// The value's bytes, as they lie in the variable.
inline std::string bytesOf(const netsnmp_variable_list& variable) {
    return variable.val_len == 0 ? std::string()
                                 : std::string(reinterpret_cast<const char*>(variable.val.string), variable.val_len);
}

/// The number of an integer-like variable.
inline long numberOf(const netsnmp_variable_list& variable) {
    return *variable.val.integer;
}

/// What the index encoder makes of an index list: the sub-identifiers after the column number.
inline Oid encodedIndex(netsnmp_variable_list* indexes) {
    oid encoded[MAX_OID_LEN];
    std::size_t length = 0;
    if (build_oid_noalloc(encoded, MAX_OID_LEN, &length, nullptr, 0, indexes) != SNMPERR_SUCCESS) {
        return {};
    }
    return Oid(encoded, encoded + length);
}

}  // namespace kx::test
