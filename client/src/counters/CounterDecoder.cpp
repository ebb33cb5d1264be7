#include "client/src/counters/CounterDecoder.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string_view>
#include <unordered_map>

namespace kx::client {

namespace {

/// Frames that one report may take: some ten times what a million containers need.
constexpr std::size_t kMaxFrames = 1000;

using Positions = std::unordered_map<std::string_view, std::size_t>;

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

KXLPerfStat statOf(const std::int64_t* numbers, bool isDouble) {
    KXLPerfStat stat;
    stat.kind = isDouble ? 0 : 1;
    stat.value1 = valueOf(numbers[0], isDouble);
    stat.value2 = valueOf(numbers[1], isDouble);
    stat.value3 = valueOf(numbers[2], isDouble);
    return stat;
}

/// The counters in the order of their names: each is then put at the end of its map.
std::vector<int> inNameOrder(const wire::CounterGroup& group) {
    std::vector<int> order(static_cast<std::size_t>(group.counters_size()));
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(),
              [&](int one, int other) { return group.counters(one) < group.counters(other); });
    return order;
}

KXLMonitorData& elementOf(std::string_view eid, std::vector<KXLMonitorData>& into, Positions& positions) {
    const auto [known, isNew] = positions.emplace(eid, into.size());
    if (isNew) {
        KXLGUIDBase::Bytes bytes{};
        std::copy(eid.begin(), eid.end(), bytes.begin());
        into.push_back({KXLEID(bytes), {}});
    }
    return into[known->second];
}

void decodeGroup(const wire::CounterGroup& group, std::vector<KXLMonitorData>& into, Positions& positions) {
    const auto order = inNameOrder(group);
    const std::int64_t* numbers = group.values().data();
    for (int row = 0; row < group.instances_size(); ++row) {
        const auto eid =
            std::string_view(group.eids()).substr(static_cast<std::size_t>(row) * wire::kEidBytes, wire::kEidBytes);
        auto& counters = elementOf(eid, into, positions).classes[group.class_name()][group.instances(row)];
        for (const int counter : order) {
            const auto offset = static_cast<std::size_t>(counter) * wire::kNumbersPerCounter;
            counters.insert_or_assign(counters.end(), group.counters(counter),
                                      statOf(numbers + offset, group.doubles()));
        }
        numbers += order.size() * wire::kNumbersPerCounter;
    }
}

}  // namespace

SampleAssembler::Outcome SampleAssembler::take(std::uint64_t key, wire::CounterSample& sample) {
    const auto known = partial_.find(key);
    if (known == partial_.end() && !sample.continued()) {
        return Outcome::Complete;
    }
    Partial& partial = partial_[key];
    if (++partial.frames > kMaxFrames) {
        return Outcome::TooLarge;
    }
    const bool complete = !sample.continued();
    partial.sample.MergeFrom(sample);
    if (!complete) {
        return Outcome::Pending;
    }
    sample = std::move(partial.sample);
    partial_.erase(key);
    return Outcome::Complete;
}

bool decodeCounters(const wire::CounterSample& from, std::vector<KXLMonitorData>& into, std::string& reason) {
    Positions positions;
    for (const wire::CounterGroup& group : from.groups()) {
        if (!isConsistent(group)) {
            reason = "a report of counters whose columns do not fit together";
            return false;
        }
        // Most often each group has the same containers, once.
        const auto rows = static_cast<std::size_t>(group.instances_size());
        into.reserve(rows);
        positions.reserve(rows);
        decodeGroup(group, into, positions);
    }
    return true;
}

}  // namespace kx::client
