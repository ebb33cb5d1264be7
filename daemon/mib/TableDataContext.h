// One row of a table, as the table framework and the agent library hold it.
//
// Thread promise: a row lives on the main thread, inside the handling of one request.
#pragma once

#include "mib/ColumnValue.h"

/// @brief The abstract row of table T. Every table has its own instance of it, so that a row of one table can
/// never be taken for a row of another behind the library's untyped pointers.
///
/// A row outlives the snapshot it was copied from: it holds counted references or copies of its own. The order of
/// the virtual functions is part of the contract.
/// @tparam T the table type, which may be incomplete
template <typename T>
class TableDataContext {
public:
    /// The library's rows are destroyed only through this.
    virtual ~TableDataContext() = default;

    /// @brief The value under a column tag. Not const: a row may complete itself when it is asked.
    /// @param tag 1 to the table's last column, or the tag of one of the table's foreign keys beyond that
    /// @return the null value for every tag that the row has nothing for
    virtual ColumnValue operator[](unsigned /*tag*/) { return {}; }

protected:
    TableDataContext() = default;
    TableDataContext(const TableDataContext&) = default;
    TableDataContext& operator=(const TableDataContext&) = default;
};
