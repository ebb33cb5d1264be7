#include "tables/VeIpTableData.h"

#include "tables/ColumnValues.h"
#include "tables/UnknownTag.h"

std::vector<KXLIPAddress> VeIpSubListTraits::listOf(const KXLEnv* environment) {
    KXLOptionalProperty<std::vector<KXLIPAddress>> addresses;
    const bool has = environment != nullptr && environment->getConfig().getAddresses(addresses) == 0;
    return has ? addresses.get() : std::vector<KXLIPAddress>();
}

VeIpTableData::VeIpTableData(std::int32_t veid, const KXLIPAddress& address)
    : veid_(veid), address_(address.getAddress()), mask_(address.getMask()) {}

ColumnValue VeIpTableData::operator[](unsigned tag) {
    switch (tag) {
        case 0:
            logUnknownTag(tag);
            return {};
        case 1:
            return parsedColumn(ASN_IPADDRESS, address_);
        case 2:
            return parsedColumn(ASN_IPADDRESS, mask_);
        case 3:
            return numberColumn(ASN_UNSIGNED, veid_);
        default:
            return {};
    }
}
