// The row source of the container table.
//
// Thread promise: main thread, for one request. It holds counted references to the list it walks, so that a
// container which the agent removes meanwhile is still read as it was.
#pragma once

#include "mib/TableDataContext.h"
#include "tables/ContainerWalk.h"

struct VeTable;

/// @brief Walks the containers of a list and gives the columns of the one it stands on. Nothing is copied into
/// rows: every column is read from the environment when it is asked for.
class VeTableData : public TableDataContext<VeTable> {
public:
    /// A row source without rows.
    VeTableData() = default;

    /// @brief Stands on the first container from begin on.
    /// @param end of the same list
    VeTableData(ContainerWalk::Position begin, ContainerWalk::Position end);

    /// @brief The value of a column. Asking for the VE id (1) allocates nothing: it is asked of every row of every
    /// request.
    /// @param tag 1 VE id, 2 environment identifier, 3 name, 4 host name, 5 description, 6 OS template, 7 base
    /// sample, 8 state, 9 transition
    /// @return what the configuration does not have is published as an empty text, a missing VE id as 4294967295,
    /// a missing base sample as the empty identifier; null when there is no such column (0 is logged)
    ColumnValue operator[](unsigned tag) override;

    /// @brief Moves to the next container. Not to be called at the end.
    void advance() { walk_.advance(); }
    bool atEnd() const { return walk_.atEnd(); }

    /// Row sources over the same list are equal when they stand on the same container.
    bool operator==(const VeTableData& other) const { return walk_ == other.walk_; }

private:
    ContainerWalk walk_;
};
