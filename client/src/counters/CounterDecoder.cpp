#include "client/src/counters/CounterDecoder.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "client/src/values/Limits.h"

namespace kx::client {

namespace {

using Positions = std::unordered_map<std::string_view, std::size_t>;

/// What it will take once it is decoded.
std::size_t decodedBytes(const wire::CounterSample& sample) {
    std::size_t bytes = 0;
    for (const wire::CounterGroup& group : sample.groups()) {
        bytes += kReportGroupBytes + group.class_name().size() + group.eids().size() +
                 static_cast<std::size_t>(group.instances_size()) * (kReportRowBytes + group.class_name().size()) +
                 static_cast<std::size_t>(group.counters_size()) * kReportCounterBytes +
                 static_cast<std::size_t>(group.values_size()) * kReportCounterBytes / wire::kNumbersPerCounter;
    }
    return bytes;
}

bool isConsistent(const wire::CounterGroup& group) {
    const std::size_t rows = group.eids().size() / wire::kEidBytes;
    const auto counters = static_cast<std::size_t>(group.counters_size());
    return group.eids().size() % wire::kEidBytes == 0 && static_cast<std::size_t>(group.instances_size()) == rows &&
           static_cast<std::size_t>(group.values_size()) == rows * counters * wire::kNumbersPerCounter;
}

KXLPerfStat::Value valueOf(std::int64_t bits, bool isDouble) {
    KXLPerfStat::Value value{bits};
    if (isDouble) {
        std::memcpy(&value.real, &bits, sizeof bits);
    }
    return value;
}

KXLPerfStat statOf(const std::int64_t* numbers, bool isDouble, bool isKnown) {
    KXLPerfStat stat;
    stat.kind = isDouble ? 0 : 1;
    stat.value1 = valueOf(numbers[0], isDouble);
    stat.value2 = valueOf(numbers[1], isDouble);
    stat.value3 = valueOf(numbers[2], isDouble);
    stat.isKnown = isKnown;
    return stat;
}

/// @return of each of the group's counters whether its values are known
std::vector<bool> knownOf(const wire::CounterGroup& group) {
    const std::unordered_set<std::string_view> unknown(group.unknown().begin(), group.unknown().end());
    std::vector<bool> known;
    known.reserve(static_cast<std::size_t>(group.counters_size()));
    for (const std::string& name : group.counters()) {
        known.push_back(unknown.count(name) == 0);
    }
    return known;
}

/// The counters in the order of their names: each is then put at the end of its map.
std::vector<int> inNameOrder(const wire::CounterGroup& group) {
    std::vector<int> order(static_cast<std::size_t>(group.counters_size()));
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(),
              [&](int one, int other) { return group.counters(one) < group.counters(other); });
    return order;
}

/// Makes a report out of its groups, from the parts of an earlier one where these fit: of ten thousand containers
/// reports have hundreds of thousands of parts, and seldom other ones than before.
class ReportBuilder {
public:
    ReportBuilder(std::vector<KXLMonitorData>& report, std::vector<KXLMonitorData> earlier)
        : report_(report), earlier_(std::move(earlier)) {}

    void add(const wire::CounterGroup& group) {
        // Most often each group has the same containers, once.
        const auto rows = static_cast<std::size_t>(group.instances_size());
        report_.reserve(rows);
        positions_.reserve(rows);
        const Columns columns{inNameOrder(group), knownOf(group)};
        const std::int64_t* numbers = group.values().data();
        for (std::size_t row = 0; row < rows; ++row) {
            const auto eid = std::string_view(group.eids()).substr(row * wire::kEidBytes, wire::kEidBytes);
            addRow(group, positionOf(eid), group.instances(static_cast<int>(row)), columns, numbers);
            numbers += columns.order.size() * wire::kNumbersPerCounter;
        }
    }

private:
    using Counters = KXLMonitorData::Counters;
    using Instances = KXLMonitorData::Instances;

    /// A group's counters.
    struct Columns {
        std::vector<int> order;   ///< of their names
        std::vector<bool> known;  ///< of each, whether its values are known
    };

    std::size_t positionOf(std::string_view eid) {
        const auto [known, isNew] = positions_.emplace(eid, report_.size());
        if (isNew) {
            KXLGUIDBase::Bytes bytes{};
            std::copy(eid.begin(), eid.end(), bytes.begin());
            report_.push_back({KXLEID(bytes), {}});
        }
        return known->second;
    }

    void addRow(const wire::CounterGroup& group, std::size_t position, const std::string& instance,
                const Columns& columns, const std::int64_t* numbers) {
        auto& instances = report_[position].classes[group.class_name()];
        auto known = instances.find(instance);
        const bool isFirst = known == instances.end();
        if (isFirst) {
            auto part = earlierPart(position, group.class_name(), instance);
            known = part ? instances.insert(std::move(part)).position : instances.try_emplace(instance).first;
        }
        Counters& counters = known->second;
        auto place = counters.begin();
        for (const int counter : columns.order) {
            const std::string& name = group.counters(counter);
            // What an earlier report had, and this one has not.
            while (isFirst && place != counters.end() && place->first < name) {
                place = counters.erase(place);
            }
            const auto column = static_cast<std::size_t>(counter);
            const auto stat =
                statOf(numbers + column * wire::kNumbersPerCounter, group.doubles(), columns.known[column]);
            place = std::next(counters.insert_or_assign(place, name, stat));
        }
        if (isFirst) {
            counters.erase(place, counters.end());
        }
    }

    /// @return the instance's counters in the earlier report, which are this one's now; nothing when it had none
    Instances::node_type earlierPart(std::size_t position, const std::string& className, const std::string& instance) {
        if (position >= earlier_.size() || !(earlier_[position].eid == report_[position].eid)) {
            return {};
        }
        const auto found = earlier_[position].classes.find(className);
        return found == earlier_[position].classes.end() ? Instances::node_type() : found->second.extract(instance);
    }

    std::vector<KXLMonitorData>& report_;
    std::vector<KXLMonitorData> earlier_;
    Positions positions_;
};

}  // namespace

SampleAssembler::Outcome SampleAssembler::take(std::uint64_t key, wire::CounterSample& sample) {
    const bool isLast = !sample.continued();
    const auto known = partial_.find(key);
    if (known == partial_.end() && isLast) {
        return decodedBytes(sample) > kMaxReportBytes ? Outcome::TooLarge : Outcome::Complete;
    }
    Partial& partial = partial_[key];
    if (++partial.frames > kMaxReportFrames) {
        return Outcome::Endless;
    }
    add(partial, sample);
    if (!isLast) {
        return Outcome::Pending;
    }
    const Outcome outcome = partial.isTooLarge ? Outcome::TooLarge : Outcome::Complete;
    sample = std::move(partial.sample);
    bytes_ -= partial.bytes;
    partial_.erase(key);
    return outcome;
}

void SampleAssembler::add(Partial& partial, wire::CounterSample& sample) {
    const std::size_t more = decodedBytes(sample);
    if (partial.isTooLarge || bytes_ + more > kMaxReportBytes) {
        partial.isTooLarge = true;
        bytes_ -= std::exchange(partial.bytes, 0);
        wire::CounterSample().Swap(&partial.sample);
        return;
    }
    partial.bytes += more;
    bytes_ += more;
    partial.sample.MergeFrom(sample);
}

bool decodeCounters(const wire::CounterSample& from, std::vector<KXLMonitorData>& into, std::string& reason) {
    ReportBuilder report(into, std::exchange(into, {}));
    for (const wire::CounterGroup& group : from.groups()) {
        if (!isConsistent(group)) {
            reason = "a report of counters whose columns do not fit together";
            return false;
        }
        report.add(group);
    }
    return true;
}

}  // namespace kx::client
