// Performance counters as the agent tells them. Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLMonitorAgent.h>

#include "ctl/Json.h"

namespace kx::ctl {

inline constexpr const char* kQuotaClass = "counters_kx_quota";
inline constexpr const char* kNetworkClass = "counters_kx_net";

/// @brief What the vocabulary says of a class.
struct CounterClass {
    std::vector<std::string> order;    ///< the counters' names
    std::map<std::string, int> types;  ///< what is not in it is a level

    /// @return whether a counter only grows
    bool isIncrease(const std::string& counter) const;
};

/// @return nothing when the vocabulary does not have the class
std::optional<CounterClass> readCounterClass(const KXLAccessPointPrototype& agent, const std::string& className);

/// A name and the counter's value; nothing: the agent does not know it.
using NamedValues = std::vector<std::pair<std::string, std::optional<std::int64_t>>>;

/// What is shown of a value that the agent does not know.
inline constexpr const char* kUnknown = "unknown";

/// @return counters that the vocabulary names, in its order, and the others behind them: of one that only grows what
/// has been added, of a level what it is now
NamedValues valuesInOrder(const CounterClass& counterClass, const KXLMonitorData::Counters& counters);

/// @brief Sets a key to a value, or to kUnknown.
void putValue(Json& object, const std::string& key, const std::optional<std::int64_t>& value);

Json valuesJson(const NamedValues& values);

/// @return one of a sample's three numbers, rounded where the agent tells it with a fraction
std::int64_t integerOf(const KXLPerfStat& stat, const KXLPerfStat::Value& value);

/// @brief Asks for a report. On a connection's first one counters that only grow have their totals.
/// @param eids empty: every container's
/// @return 0, or a KXLRequestError
int queryCounters(KXLAccessPointPrototype& agent, const std::vector<std::string>& classes, const std::set<KXLEID>& eids,
                  std::vector<KXLMonitorData>& into);

/// @brief The same.
/// @param socket the path of the agent's socket, for the words of the error
/// @throws Failure when there is no answer
std::vector<KXLMonitorData> askCounters(KXLAccessPointPrototype& agent, const std::vector<std::string>& classes,
                                        const std::set<KXLEID>& eids, const std::string& socket);

/// What an instance has used of a quota.
struct QuotaUse {
    std::optional<std::int64_t> used = 0;  ///< nothing: the agent does not know it
    std::int64_t soft = 0;                 ///< 0: none
    std::int64_t hard = 0;                 ///< 0: none
    std::int64_t grace = 0;                ///< seconds left, 0: none

    /// @return what use is measured against: the hard limit, without one the soft limit; 0 when there is none
    std::int64_t limit() const { return hard > 0 ? hard : soft > 0 ? soft : 0; }

    /// @return how much of it is used, in parts of a hundred; nothing where there is no limit, or the use is not known
    std::optional<std::int64_t> percent() const;
};

/// @param what "diskspace" or "inodes"
/// @return nothing when the counters do not have it
std::optional<QuotaUse> quotaOf(const KXLMonitorData::Counters& counters, const std::string& what);

}  // namespace kx::ctl
