#include "ctl/view/Counters.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cmath>

#include "ctl/AgentConnection.h"
#include "ctl/ExitCode.h"
#include "ctl/view/Amounts.h"

namespace kx::ctl {
namespace {

constexpr const char* kVocabulary = "KXABasicFunctionality";
constexpr int kIncrease = 2;

std::optional<std::int64_t> valueOf(const CounterClass& counterClass, const std::string& counter,
                                    const KXLPerfStat& stat) {
    if (!stat.isKnown) {
        return std::nullopt;
    }
    return integerOf(stat, counterClass.isIncrease(counter) ? stat.value3 : stat.value1);
}

std::optional<std::int64_t> levelOf(const KXLMonitorData::Counters& counters, const std::string& name) {
    const auto found = counters.find(name);
    return found == counters.end() || !found->second.isKnown
               ? std::nullopt
               : std::optional(integerOf(found->second, found->second.value1));
}

}  // namespace

bool CounterClass::isIncrease(const std::string& counter) const {
    const auto type = types.find(counter);
    return type != types.end() && type->second == kIncrease;
}

std::optional<CounterClass> readCounterClass(const KXLAccessPointPrototype& agent, const std::string& className) {
    const auto vocabulary = agent.getVocabulary(agent.getEID(), kVocabulary);
    const auto parameter = vocabulary ? vocabulary->readCategory(className) : nullptr;
    if (!parameter) {
        return std::nullopt;
    }
    CounterClass words;
    for (int at = parameter->firstParameter(); at == 0; at = parameter->nextParameter()) {
        std::string id;
        if (parameter->getID(id) == 0) {
            words.order.push_back(id);
            parameter->getAttribute("counter_type", words.types[id]);
        }
    }
    return words;
}

NamedValues valuesInOrder(const CounterClass& counterClass, const KXLMonitorData::Counters& counters) {
    NamedValues result;
    for (const std::string& name : counterClass.order) {
        const auto found = counters.find(name);
        if (found != counters.end()) {
            result.emplace_back(name, valueOf(counterClass, name, found->second));
        }
    }
    for (const auto& [name, stat] : counters) {
        if (std::find(counterClass.order.begin(), counterClass.order.end(), name) == counterClass.order.end()) {
            result.emplace_back(name, valueOf(counterClass, name, stat));
        }
    }
    return result;
}

void putValue(Json& object, const std::string& key, const std::optional<std::int64_t>& value) {
    if (value) {
        object.put(key, *value);
    } else {
        object.put(key, kUnknown);
    }
}

Json valuesJson(const NamedValues& values) {
    Json object;
    for (const auto& [name, value] : values) {
        putValue(object, name, value);
    }
    return object;
}

std::int64_t integerOf(const KXLPerfStat& stat, const KXLPerfStat::Value& value) {
    if (stat.kind != 0) {
        return value.integer;
    }
    // Beyond these there is no integer; not a number is none either.
    constexpr double kMost = 9.2e18;
    return std::isnan(value.real) ? 0 : static_cast<std::int64_t>(std::llround(std::clamp(value.real, -kMost, kMost)));
}

int queryCounters(KXLAccessPointPrototype& agent, const std::vector<std::string>& classes, const std::set<KXLEID>& eids,
                  std::vector<KXLMonitorData>& into) {
    KXLPerfMonAgent monitor(agent.getEID(), boost::intrusive_ptr<KXLAccessPointPrototype>(&agent));
    const auto wanted = boost::make_shared<KXLPerfMonClassList>();
    for (const std::string& className : classes) {
        (*wanted)[className];
    }
    return monitor.query(into, eids, wanted);
}

std::vector<KXLMonitorData> askCounters(KXLAccessPointPrototype& agent, const std::vector<std::string>& classes,
                                        const std::set<KXLEID>& eids, const std::string& socket) {
    std::vector<KXLMonitorData> data;
    const int code = queryCounters(agent, classes, eids, data);
    if (code == KXL_ERROR_REFUSED) {
        throw Failure(ExitCode::Refused, "the agent refused to tell its counters");
    }
    if (code != 0) {
        throw Failure(ExitCode::Unreachable, whyUnreachable(code, socket));
    }
    return data;
}

std::optional<std::int64_t> QuotaUse::percent() const {
    return used && limit() > 0 ? std::optional(percentOf(*used, limit())) : std::nullopt;
}

std::optional<QuotaUse> quotaOf(const KXLMonitorData::Counters& counters, const std::string& what) {
    if (counters.count(what + "_used") == 0) {
        return std::nullopt;
    }
    return QuotaUse{levelOf(counters, what + "_used"), levelOf(counters, what + "_softlimit").value_or(0),
                    levelOf(counters, what + "_hardlimit").value_or(0), levelOf(counters, what + "_grace").value_or(0)};
}

}  // namespace kx::ctl
