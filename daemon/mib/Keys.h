// The index of a table, described at compile time as a list of keys.
//
// Thread promise: types only; add_indexes belongs to registration, on the main thread.
//
// A table's key list is a Typelist of PrimaryKey and ForeignKey, closed by NullType:
//     Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_IPADDRESS, 1>, NullType>>
// A key's column tag is the number under which a row is asked for the key's value.
#pragma once

#include <cstdint>

#include "mib/NetSnmp.h"

/// @brief The end of a Typelist.
struct NullType {};

/// @brief A list of types: its first, and the list of the others.
template <typename HeadT, typename TailT>
struct Typelist {
    using Head = HeadT;
    using Tail = TailT;
};

/// @brief A key that is also published as column `number` of its own table.
/// @tparam asnType ASN.1 tag of the key's values
/// @tparam number 1 to the table's last column
template <std::uint8_t asnType, unsigned number>
struct PrimaryKey {
    static constexpr std::uint8_t type = asnType;
    /// @param maxColumn the table's last column
    static constexpr unsigned tag(unsigned /*maxColumn*/) { return number; }
};

/// @brief A key that leads to another table's row. Its tag lies beyond the last column: the row can give the
/// value, but no request can name it as a column.
/// @tparam asnType ASN.1 tag of the key's values
/// @tparam number counts the table's foreign keys, from 1
template <std::uint8_t asnType, unsigned number>
struct ForeignKey {
    static constexpr std::uint8_t type = asnType;
    /// @param maxColumn the table's last column
    static constexpr unsigned tag(unsigned maxColumn) { return maxColumn + number; }
};

/// @brief Appends one index to a table's registration and notes its tag in the variable's `index` member.
/// @return 0, or 1 when the library has no memory for it
inline int add_indexes(netsnmp_table_registration_info* tableInfo, std::uint8_t type, unsigned tag) {
    netsnmp_variable_list* const added = snmp_varlist_add_variable(&tableInfo->indexes, nullptr, 0, type, nullptr, 0);
    if (added == nullptr) {
        return 1;
    }
    added->index = static_cast<int>(tag);
    return 0;
}

/// @brief Appends the indexes of a whole key list, in list order.
template <typename Keys, unsigned maxColumn>
struct KeyIndexes {
    /// @return 0, or 1 when the library has no memory; the keys before the failing one have then been added
    static int add_indexes(netsnmp_table_registration_info* tableInfo) {
        using Key = typename Keys::Head;
        const int failed = ::add_indexes(tableInfo, Key::type, Key::tag(maxColumn));
        return failed != 0 ? failed : KeyIndexes<typename Keys::Tail, maxColumn>::add_indexes(tableInfo);
    }

    /// @brief Calls `visit` with each key's column tag, in list order.
    template <typename Visit>
    static void forEachTag(const Visit& visit) {
        visit(Keys::Head::tag(maxColumn));
        KeyIndexes<typename Keys::Tail, maxColumn>::forEachTag(visit);
    }
};

/// The end of the list adds nothing.
template <unsigned maxColumn>
struct KeyIndexes<NullType, maxColumn> {
    static int add_indexes(netsnmp_table_registration_info*) { return 0; }
    template <typename Visit>
    static void forEachTag(const Visit& /*visit*/) {}
};
