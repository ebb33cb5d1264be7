#include "tables/VeNetworkCountersTableData.h"

#include <cstdlib>

#include "tables/ColumnValues.h"
#include "tables/UnknownTag.h"

namespace {

constexpr unsigned instanceTag = 1;
constexpr unsigned veidTag = 6;

}  // namespace

VeNetworkCountersTableData::VeNetworkCountersTableData(int veid, const std::string& instance, InstanceCounters counters)
    : veid_(static_cast<std::uint32_t>(veid)),
      instance_(static_cast<std::uint32_t>(std::strtol(instance.c_str(), nullptr, 10))),
      counters_(std::move(counters)) {}

ColumnValue VeNetworkCountersTableData::operator[](unsigned tag) {
    if (tag == veidTag) {
        return numberColumn(ASN_UNSIGNED, static_cast<std::int32_t>(veid_));
    }
    if (tag > veidTag) {
        return {};
    }
    if (tag == instanceTag) {
        return numberColumn(ASN_UNSIGNED, static_cast<std::int32_t>(instance_));
    }
    const auto& names = counterNames(className);
    if (tag == 0 || tag - 1 > names.size()) {
        logUnknownLongTag(tag);
        return {};
    }
    // The third value, where the quota table has the first: traffic only ever increases, and what it has come to
    // counts.
    return counterColumn(counters_.at(names[tag - 2]).value3.integer);
}
