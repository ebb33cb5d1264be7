// The container table: one row per container of the host, columns 1 to 9, indexed by VE id.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <utility>

#include "mib/Keys.h"
#include "tables/VeTableData.h"

/// @brief A position in the container table: a row source that stands on one of its rows, or at the end. A copy
/// costs two counted references to the list and nothing else.
class VeTableCursor {
public:
    /// @param row where the cursor stands
    explicit VeTableCursor(VeTableData row) : row_(std::move(row)) {}

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

/// @brief The containers as they were when the walk began: a counted reference to the cache's list, of which
/// nothing is copied. What the agent changes meanwhile is seen by the next request.
class VeTableSnapshot {
public:
    /// Takes the agent's list; empty when there is no agent.
    VeTableSnapshot() : VeTableSnapshot(currentEnvironments()) {}
    /// @param environments the list to walk
    explicit VeTableSnapshot(KXLEnvCache::EnvValuesList environments) : environments_(std::move(environments)) {}

    /// @return on the first container; equal to end() when there is none
    VeTableCursor begin() const { return VeTableCursor({environments_.begin(), environments_.end()}); }
    VeTableCursor end() const { return VeTableCursor({environments_.end(), environments_.end()}); }

private:
    KXLEnvCache::EnvValuesList environments_;
};

/// @brief The table type, for TableHelperHelper.
struct VeTable {
    using Keys = Typelist<PrimaryKey<ASN_UNSIGNED, 1>, NullType>;
    using Row = VeTableData;
    using Cursor = VeTableCursor;
    using Snapshot = VeTableSnapshot;

    static constexpr unsigned minColumn = 1;
    static constexpr unsigned maxColumn = 9;
};
