// The network-counter table: the counters of each container's interfaces, indexed by VE id and instance number.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeCountersTable.h"

class VeNetworkCountersTableData;

using VeNetstatKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_UNSIGNED, 1>, NullType>>;
using VeNetstatTable = VeCountersTable<VeNetstatKeys, VeNetworkCountersTableData, 1, 5>;

/// @brief The network counters of one container's instance. There are no rows yet, and no column has a value.
class VeNetworkCountersTableData : public TableDataContext<VeNetstatTable> {};
