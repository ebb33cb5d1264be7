#include "tables/VeQuotaCountersTableData.h"

#include "tables/ColumnValues.h"
#include "tables/UnknownTag.h"

namespace {

constexpr unsigned veidTag = 9;

}  // namespace

VeQuotaCountersTableData::VeQuotaCountersTableData(int veid, const std::string& /*instance*/, InstanceCounters counters)
    : veid_(static_cast<std::uint32_t>(veid)), counters_(std::move(counters)) {}

ColumnValue VeQuotaCountersTableData::operator[](unsigned tag) {
    if (tag == veidTag) {
        return numberColumn(ASN_UNSIGNED, static_cast<std::int32_t>(veid_));
    }
    if (tag > veidTag) {
        return {};
    }
    const auto& names = counterNames(className);
    if (tag == 0 || tag > names.size()) {
        logUnknownTag(tag);
        return {};
    }
    // The first value, where the network table has the third: a quota is a level, of which the present one counts.
    return counterColumn(counters_.at(names[tag - 1]).value1.integer);
}
