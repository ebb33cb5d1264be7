#include "ctl/top/TopRows.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

namespace kx::ctl {
namespace {

constexpr std::array<std::string_view, kTopOrders> kWords{"id",         "name",        "state", "in",   "out",
                                                          "packets-in", "packets-out", "used",  "quota"};

/// @return the sum over all interfaces; nothing when none has the counter, or it is no increase
std::optional<std::int64_t> rateOf(const KXLMonitorData::Instances& interfaces, const CounterClass& networkClass,
                                   const std::string& counter) {
    if (!networkClass.isIncrease(counter)) {
        return std::nullopt;
    }
    std::optional<std::int64_t> sum;
    for (const auto& [instance, counters] : interfaces) {
        const auto found = counters.find(counter);
        if (found != counters.end() && found->second.isKnown) {
            // Wraps, as the kernel's counters do: a described host may say anything.
            sum = static_cast<std::int64_t>(static_cast<std::uint64_t>(sum.value_or(0)) +
                                            static_cast<std::uint64_t>(integerOf(found->second, found->second.value2)));
        }
    }
    return sum;
}

std::optional<NetworkRates> ratesOf(const KXLMonitorData& report, const CounterClass& networkClass) {
    const auto found = report.classes.find(kNetworkClass);
    if (found == report.classes.end()) {
        return std::nullopt;
    }
    const auto in = rateOf(found->second, networkClass, "bytes_in");
    const auto out = rateOf(found->second, networkClass, "bytes_out");
    const auto packetsIn = rateOf(found->second, networkClass, "packets_in");
    const auto packetsOut = rateOf(found->second, networkClass, "packets_out");
    if (!in && !out && !packetsIn && !packetsOut) {
        return std::nullopt;
    }
    return NetworkRates{in.value_or(0), out.value_or(0), packetsIn.value_or(0), packetsOut.value_or(0)};
}

/// A container has one instance; of several the first is shown.
std::optional<QuotaUse> spaceOf(const KXLMonitorData& report) {
    const auto found = report.classes.find(kQuotaClass);
    if (found == report.classes.end() || found->second.empty()) {
        return std::nullopt;
    }
    return quotaOf(found->second.begin()->second, "diskspace");
}

/// What a row is sorted by where that is a number, larger ones first; nothing: not known.
std::optional<std::int64_t> sizeOf(const TopRow& row, TopOrder order) {
    const auto rate = [&](std::int64_t NetworkRates::*which) {
        return row.rates ? std::optional(*row.rates.*which) : std::nullopt;
    };
    switch (order) {
        case TopOrder::In:
            return rate(&NetworkRates::bytesIn);
        case TopOrder::Out:
            return rate(&NetworkRates::bytesOut);
        case TopOrder::PacketsIn:
            return rate(&NetworkRates::packetsIn);
        case TopOrder::PacketsOut:
            return rate(&NetworkRates::packetsOut);
        case TopOrder::Used:
            return row.space ? row.space->used : std::nullopt;
        case TopOrder::Quota:
            return row.percent();
        case TopOrder::Id:
            return row.environment.veid ? std::optional<std::int64_t>(-std::int64_t{*row.environment.veid})
                                        : std::nullopt;
        case TopOrder::State:
            return -std::int64_t{row.environment.state};
        case TopOrder::Name:
            break;
    }
    return 0;
}

bool comesFirst(const TopRow& one, const TopRow& other, TopOrder order, bool isReversed) {
    if (order == TopOrder::Name) {
        return isReversed ? other.environment.name < one.environment.name
                          : one.environment.name < other.environment.name;
    }
    const auto size = sizeOf(one, order);
    const auto otherSize = sizeOf(other, order);
    if (!size || !otherSize) {
        return size && !otherSize;
    }
    return isReversed ? *size < *otherSize : *size > *otherSize;
}

}  // namespace

std::optional<std::int64_t> TopRow::percent() const {
    return space ? space->percent() : std::nullopt;
}

std::string_view topOrderWord(TopOrder order) {
    return kWords[static_cast<std::size_t>(order)];
}

std::vector<std::string> topOrderWords() {
    return {kWords.begin(), kWords.end()};
}

std::vector<TopRow> topRows(const std::vector<Environment>& environments, const std::vector<KXLMonitorData>& report,
                            const CounterClass& networkClass, bool hasRates) {
    std::map<KXLEID, const KXLMonitorData*> reports;
    for (const KXLMonitorData& one : report) {
        reports[one.eid] = &one;
    }
    std::vector<TopRow> rows;
    for (const Environment& environment : environments) {
        if (!environment.isContainer()) {
            continue;
        }
        TopRow row{environment, std::nullopt, std::nullopt};
        const auto found = reports.find(environment.eid);
        if (found != reports.end()) {
            row.rates = hasRates ? ratesOf(*found->second, networkClass) : std::nullopt;
            row.space = spaceOf(*found->second);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

void sortTopRows(std::vector<TopRow>& rows, TopOrder order, bool isReversed) {
    // By number they come.
    std::stable_sort(rows.begin(), rows.end(),
                     [&](const TopRow& one, const TopRow& other) { return comesFirst(one, other, order, isReversed); });
}

}  // namespace kx::ctl
