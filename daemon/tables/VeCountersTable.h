// Tables of per-container performance counters.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include "tables/NoRows.h"

/// @brief The table type of a counter table, for TableHelperHelper. Its row source has not landed yet.
/// @tparam KeysT the key list: the container's number first, as a foreign key
/// @tparam RowT the row class
/// @tparam firstColumn,lastColumn the columns that requests can name
template <typename KeysT, typename RowT, unsigned firstColumn, unsigned lastColumn>
struct VeCountersTable {
    using Keys = KeysT;
    using Row = RowT;
    using Cursor = NoRowsCursor<Row>;
    using Snapshot = NoRowsSnapshot<Row>;

    static constexpr unsigned minColumn = firstColumn;
    static constexpr unsigned maxColumn = lastColumn;
};
