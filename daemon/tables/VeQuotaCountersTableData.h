// The quota-counter table: the disk quota counters of each container, indexed by VE id.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <cstdint>
#include <string>

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeCountersTable.h"

class VeQuotaCountersTableData;

using VeQuotaKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, NullType>;
using VeQuotaTable = VeCountersTable<VeQuotaKeys, VeQuotaCountersTableData, 1, 8>;

/// @brief The quota counters of one instance of one container. Several instances of a container have one index: the
/// first is answered.
class VeQuotaCountersTableData : public TableDataContext<VeQuotaTable> {
public:
    static constexpr const char* className = "counters_kx_quota";

    /// @param veid the container's number
    VeQuotaCountersTableData(int veid, const std::string& instance, InstanceCounters counters);

    /// @brief The value of a column.
    /// @param tag 1 to 8: the counter that has this place in the vocabulary; 9, for the index only, the container's
    /// number
    /// @return of a counter the first of its values: as it is now. Null when there is no such column (0, and one for
    /// which the vocabulary has no name, are logged)
    ColumnValue operator[](unsigned tag) override;

private:
    std::uint32_t veid_;
    InstanceCounters counters_;
};
