// The indexes of a table's rows in the order of SNMP, to find the row that a request is about without visiting all.
//
// Thread promise: one thread at a time; in the daemon the main thread.
#pragma once

#include <cstdint>
#include <vector>

#include "mib/ColumnValue.h"

/// @brief Object identifiers of rows, each with the row's place in the table's list.
class RowIndex {
public:
    void clear();

    /// @brief Begins the index of the next row of the list.
    void beginRow();
    /// @brief Appends one key's value to the row begun last, encoded as the agent library encodes indexes.
    void addKey(const ColumnValue& key);
    /// @brief To be called after the last row. Of rows with one index the first of the list stays.
    void sort();

    /// @brief The rows that can answer a request of the table's iterator.
    /// @param requests as the table helper has left them
    /// @return their places in the list, ascending: for GET the row of each instance, for GETNEXT each instance's
    /// successor, or the smallest row where there is none, since the iterator then goes on to the next column
    std::vector<std::uint32_t> choose(const netsnmp_handler_registration& registration, int mode,
                                      const netsnmp_request_info* requests) const;

private:
    struct Entry {
        std::uint32_t begin;  ///< in subIds_
        std::uint32_t length;
        std::uint32_t place;
    };
    struct Suffix {
        const oid* begin;
        std::size_t length;
    };

    template <typename SubId>
    int compare(const Entry& entry, const SubId* other, std::size_t length) const;
    const Entry* winner(const Suffix& suffix, bool exact) const;

    std::vector<std::uint32_t> subIds_;
    std::vector<Entry> entries_;
};
