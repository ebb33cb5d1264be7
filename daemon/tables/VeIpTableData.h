// The IP-address table: the addresses of each container with their masks, indexed by VE id and address.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeSubTable.h"

#include <kxl/KXLIPAddress.h>

class VeIpTableData;

/// @brief What VeSubTable has to know of addresses.
struct VeIpSubListTraits {
    using Element = KXLIPAddress;
    using Row = VeIpTableData;

    /// @param environment may be null
    /// @return the container's addresses in the order of its configuration; empty when it does not have the list
    static std::vector<Element> listOf(const KXLEnv* environment);
    static bool areEqual(const Element& one, const Element& other) { return one.compare(other) == 0; }
};

using VeIpAddrKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_IPADDRESS, 1>, NullType>>;
using VeIpAddrTable = VeSubTable<VeIpAddrKeys, VeIpSubListTraits, 1, 2>;

/// @brief One address of one container, copied out of its configuration.
class VeIpTableData : public TableDataContext<VeIpAddrTable> {
public:
    /// @param veid the container's number
    /// @param address address and mask, whatever their texts are
    VeIpTableData(std::int32_t veid, const KXLIPAddress& address);

    /// @brief The value of a column.
    /// @param tag 1 address, 2 mask; 3, for the index only, the container's number
    /// @return a text that is no address gives 255.255.255.255; null when there is no such column (0 is logged)
    ColumnValue operator[](unsigned tag) override;

private:
    std::int32_t veid_;
    std::string address_;
    std::string mask_;
};
