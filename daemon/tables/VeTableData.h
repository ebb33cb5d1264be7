// The rows of the container table.
//
// Thread promise: main thread, for one request. A row shares the list that it stands in, so that what it shows stays as
// it was when the request came, even of a container that the agent has removed since.
#pragma once

#include "mib/TableDataContext.h"
#include "tables/ContainerWalk.h"

struct VeTable;

/// @brief A container of a list, and the way to the next one. Columns are computed from the environment on demand; no
/// text of it is stored here.
class VeTableData : public TableDataContext<VeTable> {
public:
    /// Stands on no container.
    VeTableData() = default;

    /// @brief Stands on the first container from begin on.
    /// @param end of the same list
    VeTableData(ContainerWalk::Position begin, ContainerWalk::Position end);

    /// @brief The value of a column. The VE id, which every rebuild of the index reads of all rows, is read without
    /// allocating.
    /// @param tag 1 VE id, 2 environment identifier, 3 name, 4 host name, 5 description, 6 OS template, 7 base
    /// sample, 8 state, 9 transition
    /// @return for settings that the configuration lacks: 4294967295 as the VE id, the empty identifier as the base
    /// sample, otherwise the empty text. Null for other tags, of which 0 is logged
    ColumnValue operator[](unsigned tag) override;

    /// @brief Moves to the next container. Not to be called at the end.
    void advance() { walk_.advance(); }
    bool atEnd() const { return walk_.atEnd(); }
    ContainerWalk::Position position() const { return walk_.position(); }

    /// Rows of one list are equal when they are the same container.
    bool operator==(const VeTableData& other) const { return walk_ == other.walk_; }

private:
    ContainerWalk walk_;
};
