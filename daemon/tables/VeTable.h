// The container table: one row per container of the host, columns 1 to 9, indexed by VE id.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <utility>

#include "mib/Keys.h"
#include "tables/ContainerRows.h"
#include "tables/VeTableData.h"

/// @brief A position in the container table: a row source that stands on one of its rows, or at the end. A copy
/// costs two counted references to the list and nothing else.
class VeTableCursor {
public:
    using Place = ContainerWalk::Position;

    /// @brief Stands on the first container from begin on.
    /// @param end of the same list
    VeTableCursor(ContainerWalk::Position begin, ContainerWalk::Position end)
        : row_(std::move(begin), std::move(end)) {}

    /// @return what this cursor can be made from again, with the end of the same list
    Place place() const { return row_.position(); }

    /// @return the current row, to be copied by whoever wants to keep it
    const VeTableData& operator*() const { return row_; }
    /// Moves to the next container. Not to be called at the end.
    VeTableCursor& operator++() {
        row_.advance();
        return *this;
    }
    bool operator==(const VeTableCursor& other) const { return row_ == other.row_; }

private:
    VeTableData row_;
};

using VeTableSnapshot = ContainerSnapshot<VeTableCursor>;

/// @brief The table type, for TableHelperHelper.
struct VeTable {
    using Keys = Typelist<PrimaryKey<ASN_UNSIGNED, 1>, NullType>;
    using Row = VeTableData;
    using Cursor = VeTableCursor;
    using Snapshot = VeTableSnapshot;
    using RowSource = ContainerRows<VeTable>;

    static constexpr unsigned minColumn = 1;
    static constexpr unsigned maxColumn = 9;
};
