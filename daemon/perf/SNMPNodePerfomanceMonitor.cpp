#include "perf/SNMPNodePerfomanceMonitor.h"

#include <kxa/KXAEnvConfig.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <set>
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
            const auto guard = monitor->lockCache();
            monitor->storeMonitorData(data, environments);
            ++monitor->stores;
        }
    }

private:
    SNMPNodePerfomanceMonitor* const monitor;  ///< not owned: the link stops all callbacks before the monitor goes
};

/// @brief What a query answered, folded into tables that were empty, and when it was asked.
struct SNMPNodePerfomanceMonitor::Answer {
    std::map<std::string, ClassStats> tables;   ///< by class name
    std::map<std::string, std::int32_t> types;  ///< of the counters in them
    std::uint64_t stores = 0;
    std::uint64_t connection = 0;
};

/// @brief Notes who was reported; at its end, whoever else is in the cache is taken out of every class.
class SNMPNodePerfomanceMonitor::StaleVeSweeper {
public:
    explicit StaleVeSweeper(SNMPNodePerfomanceMonitor& monitor) : monitor_(monitor) {}
    ~StaleVeSweeper() {
        std::sort(kept_.begin(), kept_.end());
        for (auto& [name, stats] : monitor_.perfCache) {
            sweep(name, stats);
        }
    }
    StaleVeSweeper(const StaleVeSweeper&) = delete;
    StaleVeSweeper& operator=(const StaleVeSweeper&) = delete;

    void keep(int veid) { kept_.push_back(veid); }

private:
    // Both are in the order of numbers: one pass over ten thousand containers, without a look-up for each.
    void sweep(const std::string& name, ClassStats& stats) {
        auto kept = kept_.begin();
        for (auto held = stats.begin(); held != stats.end();) {
            kept = std::find_if(kept, kept_.end(), [&](int veid) { return veid >= held->first; });
            if (kept != kept_.end() && *kept == held->first) {
                ++held;
            } else {
                held = stats.erase(held);
                monitor_.rowLists.erase(name);
            }
        }
    }

    SNMPNodePerfomanceMonitor& monitor_;
    std::vector<int> kept_;
};

SNMPNodePerfomanceMonitor::~SNMPNodePerfomanceMonitor() {
    const std::unique_ptr<Answer> unused(waiting.exchange(nullptr));
}

ClassStats SNMPNodePerfomanceMonitor::getStats(const std::string& className) {
    const auto accessPoint = accessPointOfLink();
    if (!accessPoint) {
        return {};
    }
    auto answer = std::make_unique<Answer>();
    {
        const auto guard = lockCache();
        if (perfCache.find(className) == perfCache.end() && startMonitoring({className}, accessPoint) != 0) {
            return {};
        }
        const ClassStats& known = perfCache[className];
        if (!known.empty()) {
            return known;
        }
        answer->types = counterTypes;
        answer->stores = stores;
        answer->connection = connections;
    }
    return query(className, accessPoint, *answer) ? storeAnswer(std::move(answer), className) : ClassStats();
}

bool SNMPNodePerfomanceMonitor::query(const std::string& className,
                                      const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint,
                                      Answer& answer) {
    KXLPerfMonAgent agent(accessPoint->getEID(), accessPoint);
    agent.getRequest().getContext()->setHandler(nullptr);
    agent.getRequest().getContext()->setSynchronous(true);
    std::vector<KXLMonitorData> data;
    if (agent.query(data, {}, allCountersOf({className})) != 0) {
        return false;
    }
    SNMPNodePerfomanceMonitor alone;
    alone.counterTypes.swap(answer.types);
    alone.storeMonitorData(data, environmentsOfLink());
    alone.counterTypes.swap(answer.types);
    alone.perfCache.swap(answer.tables);
    return true;
}

ClassStats SNMPNodePerfomanceMonitor::storeAnswer(std::unique_ptr<Answer> answer, const std::string& className) {
    const std::uint64_t before = answer->stores;
    ClassStats answered = answer->tables[className];
    const std::unique_ptr<Answer> overwritten(waiting.exchange(answer.release()));
    if (stores == before) {
        return answered;
    }
    // A push came before the answer: increases in both add up. Its store is over, since one thread receives both.
    const auto guard = lockCache();
    return perfCache[className];
}

std::unique_lock<KXLLock> SNMPNodePerfomanceMonitor::lockCache() {
    std::unique_lock guard(lock);
    takeAnswer();
    return guard;
}

void SNMPNodePerfomanceMonitor::takeAnswer() {
    const std::unique_ptr<Answer> answer(waiting.exchange(nullptr));
    // The increases of another connection are none of this one's: its first report starts from zero.
    if (!answer || answer->connection != connections) {
        return;
    }
    counterTypes.insert(answer->types.begin(), answer->types.end());
    StaleVeSweeper sweeper(*this);
    for (auto& [className, table] : answer->tables) {
        ClassStats& held = perfCache[className];
        for (const auto& [veid, instances] : table) {
            sweeper.keep(veid);
            if (!held.empty()) {
                storeInstances(className, veid, instances);
            }
        }
        if (held.empty()) {
            held.swap(table);
            rowLists.erase(className);
        }
    }
}

CounterRowsPtr SNMPNodePerfomanceMonitor::getRows(const std::string& className) {
    const auto guard = lockCache();
    const auto found = perfCache.find(className);
    if (found == perfCache.end() || found->second.empty()) {
        return nullptr;
    }
    CounterRowsPtr& known = rowLists[className];
    if (!known) {
        CounterRows rows;
        for (const auto& [veid, instances] : found->second) {
            for (const auto& [instance, counters] : instances) {
                rows.push_back({veid, instance, &counters});
            }
        }
        known = std::make_shared<const CounterRows>(std::move(rows));
    }
    return known;
}

bool SNMPNodePerfomanceMonitor::copyCounters(const std::string& className, const CounterRowsPtr& rows,
                                             const std::vector<std::uint32_t>& places, std::vector<CounterMap>& into) {
    const auto guard = lockCache();
    const auto known = rowLists.find(className);
    if (known == rowLists.end() || known->second != rows) {
        return false;
    }
    for (const std::uint32_t place : places) {
        into.push_back(*(*rows)[place].counters);
    }
    return true;
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
    rowLists.clear();
    ++connections;
    ++stores;
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
    StaleVeSweeper sweeper(*this);
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
    for (const auto& [className, instances] : classes) {
        storeInstances(className, veid, instances);
    }
}

void SNMPNodePerfomanceMonitor::storeInstances(const std::string& className, int veid, const InstanceMap& sample) {
    InstanceMap& held = perfCache[className][veid];
    auto place = held.begin();
    bool hasOtherRows = false;
    // Instances that are not reported any more go; counters that are not stay, in instances that are.
    for (const auto& [instance, counters] : sample) {
        while (place != held.end() && place->first < instance) {
            place = held.erase(place);
            hasOtherRows = true;
        }
        const std::size_t before = held.size();
        place = findOrInsert(held, place, instance);
        hasOtherRows = hasOtherRows || held.size() != before;
        mergeStats(counters, place->second);
        ++place;
    }
    hasOtherRows = hasOtherRows || place != held.end();
    held.erase(place, held.end());
    if (hasOtherRows) {
        rowLists.erase(className);
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
