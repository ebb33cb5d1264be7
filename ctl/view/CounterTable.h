// Counters of several instances as a table. Main thread only.
#pragma once

#include <string>
#include <vector>

#include "ctl/view/Counters.h"
#include "ctl/view/Table.h"

namespace kx::ctl {

/// How values are written.
enum class Amounts {
    Exact,    ///< every digit, below the counters' own names
    Readable  ///< with units, below names in short
};

/// One instance.
struct CounterRow {
    std::vector<TableCell> cells;  ///< that stand before its values
    NamedValues values;
};

/// @brief Puts instances below each other, a column for each counter that one of them has.
/// @param columns those that stand before the values
/// @param names of counters, whose columns come first, in this order
Table counterTable(std::vector<TableColumn> columns, std::vector<std::string> names,
                   const std::vector<CounterRow>& rows, Amounts amounts);

}  // namespace kx::ctl
