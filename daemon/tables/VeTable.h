// The container table: one row per container of the host, columns 1 to 9, indexed by VE id.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <utility>

#include "mib/Keys.h"
#include "tables/VeTableData.h"

/// @brief A position in the container table.
class VeTableCursor {
public:
    explicit VeTableCursor(VeTableData row) : row_(std::move(row)) {}

    const VeTableData& operator*() const { return row_; }
    VeTableCursor& operator++() {
        row_.advance();
        return *this;
    }
    bool operator==(const VeTableCursor& other) const { return row_ == other.row_; }

private:
    VeTableData row_;
};

/// @brief The containers as they were when the walk began: a counted reference to the cache's list.
class VeTableSnapshot {
public:
    /// Takes the agent's list; empty when there is no agent.
    VeTableSnapshot() : VeTableSnapshot(currentEnvironments()) {}
    explicit VeTableSnapshot(KXLEnvCache::EnvValuesList environments) : environments_(std::move(environments)) {}

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
