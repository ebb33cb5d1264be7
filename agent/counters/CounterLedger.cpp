#include "agent/counters/CounterLedger.h"

#include <algorithm>
#include <numeric>
#include <string_view>

namespace kx::agent {
namespace {

using Moment = std::chrono::steady_clock::time_point;

constexpr std::int64_t kIncreaseType = 2;

/// Counters of the kernel are unsigned and may wrap; so do differences here.
std::int64_t difference(std::int64_t now, std::int64_t before) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(before));
}

std::int64_t perSecond(std::int64_t amount, Moment from, Moment to) {
    const double seconds = std::chrono::duration<double>(to - from).count();
    if (seconds <= 0) {
        return 0;
    }
    // A described host may say anything, and reports may follow each other closely.
    constexpr double kMost = 9.2e18;
    return static_cast<std::int64_t>(std::clamp(static_cast<double>(amount) / seconds, -kMost, kMost));
}

const std::int64_t* valueIn(const CounterMemory::Shown* shown, const CounterNames& names, std::size_t position) {
    return shown == nullptr ? nullptr : shown->find(names, position);
}

/// Over what has passed since the client was told last: others' periods are not its.
CounterSampleValues level(std::int64_t now, const std::int64_t* told) {
    if (told == nullptr) {
        return {now, now, now};
    }
    return {now, std::midpoint(*told, now), std::max(now, *told)};
}

CounterSampleValues increase(std::int64_t now, Moment at, const std::int64_t* before, const CounterMemory::Shown* shown,
                             const std::int64_t* told, const CounterMemory::Shown* lastTold) {
    CounterSampleValues sample;
    sample.first = before == nullptr ? 0 : perSecond(difference(now, *before), shown->at, at);
    sample.second = told == nullptr || lastTold->isOthers ? 0 : perSecond(difference(now, *told), lastTold->at, at);
    sample.third = told == nullptr ? now : difference(now, *told);
    return sample;
}

}  // namespace

CounterKinds::CounterKinds(const std::vector<Vocabulary>& vocabularies) {
    for (const Vocabulary& vocabulary : vocabularies) {
        if (vocabulary.name != kBasicFunctionality) {
            continue;
        }
        for (const Category& category : vocabulary.categories) {
            for (const Parameter& parameter : category.parameters) {
                const auto type = parameter.attributes.find("counter_type");
                if (parameter.id && type != parameter.attributes.end() && type->second == kIncreaseType) {
                    increases_.emplace(category.name, *parameter.id);
                }
            }
        }
    }
}

std::vector<bool> CounterKinds::increases(const std::string& className, const std::vector<std::string>& names) const {
    std::vector<bool> result;
    result.reserve(names.size());
    for (const std::string& name : names) {
        result.push_back(increases_.count({className, name}) != 0);
    }
    return result;
}

const std::int64_t* CounterMemory::Shown::find(const CounterNames& in, std::size_t position) const {
    if (names == in || *names == *in) {
        return &values[position];
    }
    const auto found = std::find(names->begin(), names->end(), (*in)[position]);
    return found == names->end() ? nullptr : &values[static_cast<std::size_t>(found - names->begin())];
}

const CounterMemory::Shown* CounterMemory::find(const std::string& className, const CounterRow& row) const {
    const auto container = containers_.find(row.eid);
    if (container == containers_.end()) {
        return nullptr;
    }
    const auto entry = container->second.rows.find({className, row.instance});
    return entry == container->second.rows.end() ? nullptr : &entry->second.shown;
}

void CounterMemory::put(const std::string& className, const CounterNames& names, const CounterRow& row, Moment at) {
    Container& container = containers_[row.eid];
    container.turn = turn_;
    container.rows[{className, row.instance}] = {{names, row.values, at, false}, turn_};
}

void CounterMemory::renumber(const std::vector<Renumbered>& renumbered) {
    std::unordered_map<Eid, Container, EidHash> before;
    const auto takeOut = [&](const Eid& eid) {
        if (auto known = containers_.extract(eid)) {
            before.insert(std::move(known));
        }
    };
    for (const Renumbered& each : renumbered) {
        takeOut(each.eid);
        if (each.former) {
            takeOut(*each.former);
        }
    }
    for (const Renumbered& each : renumbered) {
        const auto former = each.former ? before.find(*each.former) : before.end();
        if (former == before.end()) {
            continue;
        }
        Container& container = containers_[each.eid] = former->second;
        for (auto& [key, entry] : container.rows) {
            entry.shown.isOthers = true;
        }
    }
}

void CounterMemory::forgetOthers(const CounterScope& scope) {
    for (auto& [eid, container] : containers_) {
        if (scope.covers(eid)) {
            std::erase_if(container.rows, [&](const auto& entry) {
                return entry.second.turn != turn_ && scope.classes.count(entry.first.first) != 0;
            });
        }
    }
}

void CounterMemory::endTurn(const CounterScope& scope) {
    forgetOthers(scope);
    std::erase_if(containers_,
                  [&](const auto& entry) { return entry.second.turn != turn_ && scope.covers(entry.first); });
    ++turn_;
}

std::vector<CounterSampleValues> sampleOf(const CounterRow& row, const CounterNames& names,
                                          const std::vector<bool>& increases, Moment now,
                                          const CounterMemory::Shown* before, const CounterMemory::Shown* told) {
    std::vector<CounterSampleValues> sample;
    sample.reserve(row.values.size());
    const bool isOthers = told != nullptr && told->isOthers;
    for (std::size_t i = 0; i < row.values.size(); ++i) {
        const std::int64_t* const valueTold = valueIn(told, names, i);
        sample.push_back(increases[i] ? increase(row.values[i], now, valueIn(before, names, i), before, valueTold, told)
                                      : level(row.values[i], isOthers ? nullptr : valueTold));
    }
    return sample;
}

}  // namespace kx::agent
