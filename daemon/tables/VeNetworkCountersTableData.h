// The network-counter table: the counters of each container's interfaces, indexed by VE id and instance number.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <cstdint>
#include <string>

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeCountersTable.h"

class VeNetworkCountersTableData;

using VeNetstatKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_UNSIGNED, 1>, NullType>>;
using VeNetstatTable = VeCountersTable<VeNetstatKeys, VeNetworkCountersTableData, 1, 5>;

/// @brief The network counters of one instance of one container.
class VeNetworkCountersTableData : public TableDataContext<VeNetstatTable> {
public:
    static constexpr const char* className = "counters_kx_net";

    /// @param veid the container's number
    /// @param instance its name; the digits that it begins with are its number, 0 when there are none
    VeNetworkCountersTableData(int veid, const std::string& instance, InstanceCounters counters);

    /// @brief The value of a column.
    /// @param tag 1 the instance's number; 2 to 5 the counter that has the place before this one in the vocabulary; 6,
    /// for the index only, the container's number
    /// @return of a counter the third of its values: the sum of its increases. Null when there is no such column (0,
    /// and one for which the vocabulary has no name, are logged)
    ColumnValue operator[](unsigned tag) override;

private:
    std::uint32_t veid_;
    std::uint32_t instance_;
    InstanceCounters counters_;
};
