// The IP-address table: the addresses of each container with their masks, indexed by VE id and address.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeSubTable.h"

class VeIpTableData;

/// @brief What VeSubTable has to know of addresses.
struct VeIpSubListTraits {
    using Row = VeIpTableData;
};

using VeIpAddrKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_IPADDRESS, 1>, NullType>>;
using VeIpAddrTable = VeSubTable<VeIpAddrKeys, VeIpSubListTraits, 1, 2>;

/// @brief One address of one container. There are no rows yet, and no column has a value.
class VeIpTableData : public TableDataContext<VeIpAddrTable> {};
