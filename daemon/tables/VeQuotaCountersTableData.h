// The quota-counter table: the disk quota counters of each container, indexed by VE id.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeCountersTable.h"

class VeQuotaCountersTableData;

using VeQuotaKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, NullType>;
using VeQuotaTable = VeCountersTable<VeQuotaKeys, VeQuotaCountersTableData, 1, 8>;

/// @brief The quota counters of one container. There are no rows yet, and no column has a value.
class VeQuotaCountersTableData : public TableDataContext<VeQuotaTable> {};
