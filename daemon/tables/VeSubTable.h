// Tables that list the elements of one list-valued setting of each container.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include "tables/NoRows.h"

/// @brief The table type of a sub-table, for TableHelperHelper. Its row source has not landed yet.
/// @tparam KeysT the key list: the container's number first, as a foreign key
/// @tparam TraitsT names the row class (Row) and, with the row source, the list of a container
/// @tparam firstColumn,lastColumn the columns that requests can name
template <typename KeysT, typename TraitsT, unsigned firstColumn, unsigned lastColumn>
struct VeSubTable {
    using Keys = KeysT;
    using Row = typename TraitsT::Row;
    using Cursor = NoRowsCursor<Row>;
    using Snapshot = NoRowsSnapshot<Row>;

    static constexpr unsigned minColumn = firstColumn;
    static constexpr unsigned maxColumn = lastColumn;
};
