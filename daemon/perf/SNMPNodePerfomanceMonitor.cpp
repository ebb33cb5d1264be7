#include "perf/SNMPNodePerfomanceMonitor.h"

#include <kxa/KXAEnvConfig.h>

#include <boost/make_shared.hpp>
#include <mutex>
#include <utility>

#include "link/SNMPNodeLocal.h"
#include "link/VocabularyAccess.h"

#include <kxl/KXLMonitorAgent.h>

namespace {

constexpr int pushPeriodSeconds = 30;
constexpr std::int32_t nothingStarted = -1;

/// The type of a counter whose samples are increases, to be added up.
constexpr std::int32_t accumulatedCounter = 2;

/// What both kinds of requests take: all counters of the classes.
boost::shared_ptr<KXLPerfMonClassList> allCountersOf(const std::vector<std::string>& classes) {
    auto list = boost::make_shared<KXLPerfMonClassList>();
    for (const std::string& name : classes) {
        (*list)[name];
    }
    return list;
}

boost::intrusive_ptr<KXLAccessPointPrototype> accessPointOfLink() {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    return link == nullptr ? nullptr : link->getAccessPoint();
}

boost::intrusive_ptr<KXLEnvCache> environmentsOfLink() {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    return link == nullptr ? nullptr : link->getEnvCache();
}

/// @return the container's number; below 1 when it is unknown, or has none
int veidOf(const KXLEnvCache* environments, const KXLEID& eid) {
    const auto environment = environments == nullptr ? nullptr : environments->getEnvCopy(eid);
    int veid = -1;
    const bool has = environment && KXAEnvConfig(environment->getConfig()).getVeid(veid) == 0;
    return has ? veid : -1;
}

/// @param from a position before which the name cannot be
/// @return where the name is; a default-made value was inserted when it was not there
template <typename Map>
typename Map::iterator findOrInsert(Map& map, typename Map::iterator from, const std::string& name) {
    int order = -1;
    while (from != map.end() && (order = from->first.compare(name)) < 0) {
        ++from;
    }
    return from != map.end() && order == 0 ? from : map.emplace_hint(from, name, typename Map::mapped_type());
}

/// Adds as the target's kind says, whatever the incoming one is.
void addValue(const KXLPerfStat& target, KXLPerfStat::Value& into, const KXLPerfStat::Value& value) {
    if (target.kind != 0) {
        into.integer = static_cast<std::int64_t>(static_cast<std::uint64_t>(into.integer) +
                                                 static_cast<std::uint64_t>(value.integer));
    } else {
        into.real += value.real;
    }
}

void accumulate(KXLPerfStat& target, const KXLPerfStat& incoming) {
    target.fourth = 0;
    addValue(target, target.value1, incoming.value1);
    addValue(target, target.value2, incoming.value2);
    addValue(target, target.value3, incoming.value3);
}

}  // namespace

/// @brief The subscription's callbacks. Losses and errors are left to the link, which restarts the monitor with its
/// next connection.
class SNMPNodePerfomanceMonitor::LocalDataHandler : public KXLMonitorAgent::Handler {
public:
    explicit LocalDataHandler(SNMPNodePerfomanceMonitor* owner) : monitor(owner) {}

    void handleConnected() override {}
    void handleError(int) override {}

    void handleData(const std::vector<KXLMonitorData>& data) override {
        if (monitor != nullptr) {
            // Asked for before the monitor's lock is taken: the link has its own, which comes first.
            const auto environments = environmentsOfLink();
            const std::lock_guard guard(monitor->lock);
            monitor->storeMonitorData(data, environments);
        }
    }

private:
    SNMPNodePerfomanceMonitor* const monitor;  ///< not owned: the link stops all callbacks before the monitor goes
};

/// @brief Remembers who is in the cache; at its end, whoever was not kept is taken out of every class.
class SNMPNodePerfomanceMonitor::StaleVeSweeper {
public:
    explicit StaleVeSweeper(std::map<std::string, ClassStats>& cache) : cache_(cache) {
        for (const auto& [name, stats] : cache_) {
            for (const auto& [veid, instances] : stats) {
                stale_.insert(stale_.end(), veid);
            }
        }
    }
    ~StaleVeSweeper() {
        for (auto& [name, stats] : cache_) {
            for (const int veid : stale_) {
                stats.erase(veid);
            }
        }
    }
    StaleVeSweeper(const StaleVeSweeper&) = delete;
    StaleVeSweeper& operator=(const StaleVeSweeper&) = delete;

    void keep(int veid) { stale_.erase(veid); }

private:
    std::map<std::string, ClassStats>& cache_;
    std::set<int> stale_;
};

ClassStats SNMPNodePerfomanceMonitor::getStats(const std::string& className) {
    const auto accessPoint = accessPointOfLink();
    if (!accessPoint) {
        return {};
    }
    {
        const std::lock_guard guard(lock);
        if (perfCache.find(className) == perfCache.end() && startMonitoring({className}, accessPoint) != 0) {
            return {};
        }
        ClassStats known = perfCache[className];
        if (!known.empty()) {
            return known;
        }
    }
    KXLPerfMonAgent agent(accessPoint->getEID(), accessPoint);
    agent.getRequest().getContext()->setHandler(nullptr);
    agent.getRequest().getContext()->setSynchronous(true);
    std::vector<KXLMonitorData> answer;
    if (agent.query(answer, {}, allCountersOf({className})) != 0) {
        return {};
    }
    // Without the lock, on purpose: see the header.
    storeMonitorData(answer, environmentsOfLink());
    return perfCache[className];
}

std::int32_t SNMPNodePerfomanceMonitor::startMonitoring(
    const std::vector<std::string>& classes, const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint) {
    if (classes.empty() || !accessPoint) {
        return nothingStarted;
    }
    const auto vocabulary = accessPoint->getVocabulary(accessPoint->getEID(), countersVocabulary);
    std::vector<std::string> fresh;
    for (const std::string& name : classes) {
        if (!perfCache.try_emplace(name).second) {
            continue;
        }
        fresh.push_back(name);
        CategoryInfo category;
        // The result is not looked at: a class that the vocabulary does not describe is monitored all the same.
        readVocabularyCategory(category, name, vocabulary);
        counterTypes.insert(category.counterTypes.begin(), category.counterTypes.end());
    }
    if (fresh.empty()) {
        return nothingStarted;
    }
    KXLMonitorAgent agent(accessPoint->getEID(), accessPoint);
    agent.getRequest().getContext()->setHandler(new LocalDataHandler(this));
    agent.getRequest().getContext()->setSynchronous(false);
    std::set<KXLEID> notMonitored;  // nobody asks
    return agent.startMonitoring({}, allCountersOf(fresh), pushPeriodSeconds, notMonitored, 0);
}

std::int32_t SNMPNodePerfomanceMonitor::restart(const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint) {
    std::map<std::string, ClassStats> old;  // freed after the lock is released
    const std::lock_guard guard(lock);
    old.swap(perfCache);
    if (!accessPoint) {
        return 0;
    }
    std::vector<std::string> classes;
    classes.reserve(old.size());
    for (const auto& [name, stats] : old) {
        classes.push_back(name);
    }
    // Subscriptions of the old connection ended with it.
    return startMonitoring(classes, accessPoint);
}

void SNMPNodePerfomanceMonitor::storeMonitorData(const std::vector<KXLMonitorData>& data,
                                                 const boost::intrusive_ptr<KXLEnvCache>& environments) {
    StaleVeSweeper sweeper(perfCache);
    for (const KXLMonitorData& container : data) {
        const int veid = veidOf(environments.get(), container.eid);
        if (veid < 1 || container.classes.empty()) {
            continue;
        }
        sweeper.keep(veid);
        storeVeData(veid, container.classes);
    }
}

void SNMPNodePerfomanceMonitor::storeVeData(int veid, const KXLMonitorData::Classes& classes) {
    for (const auto& [className, sample] : classes) {
        InstanceMap& held = perfCache[className][veid];
        auto place = held.begin();
        // Instances that are not reported any more go; counters that are not stay, in instances that are.
        for (const auto& [instance, counters] : sample) {
            while (place != held.end() && place->first < instance) {
                place = held.erase(place);
            }
            place = findOrInsert(held, place, instance);
            mergeStats(counters, place->second);
            ++place;
        }
        held.erase(place, held.end());
    }
}

// All three maps are in the order of names, so each is walked once: a push has a hundred thousand counters, and looking
// each up in two maps is most of what folding it in would cost.
void SNMPNodePerfomanceMonitor::mergeStats(const CounterMap& incoming, CounterMap& target) {
    auto type = counterTypes.begin();
    auto held = target.begin();
    for (const auto& [name, stat] : incoming) {
        type = findOrInsert(counterTypes, type, name);
        held = findOrInsert(target, held, name);
        if (type->second == accumulatedCounter) {
            accumulate(held->second, stat);
        } else {
            held->second = stat;
        }
    }
}
