// Performance monitors under test, each with a cache of its own, and the agent that all of them ask.
//
// There is one link a process, and once destroyed it is never made again: the whole binary shares it, with its agent.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "perf/SNMPNodePerfomanceMonitor.h"
#include "tests/support/CounterScripts.h"

namespace kx::test {

inline const std::string kQuota = "counters_kx_quota";
inline const std::string kNet = "counters_kx_net";

/// The containers of the agent: two with a number, and such as have no valid one.
extern const wire::Environment kWeb;    // 101
extern const wire::Environment kStore;  // 102
extern const wire::Environment kNoNumber;
extern const wire::Environment kZero;   // 0
extern const wire::Environment kMinus;  // -7

/// @brief An environment as the agent knows it, with another number.
wire::Environment renumbered(wire::Environment environment, int veid);

/// The first value of each counter, by VE id, instance and name.
using Readings = std::map<int, std::map<std::string, std::map<std::string, std::int64_t>>>;

/// @brief The first values of a class. That the second and the third fit to them (see rowOf) is checked.
Readings readingsOf(const ClassStats& stats);

/// @brief A group whose only counter is "bytes_in".
wire::CounterGroup bytesOf(const std::vector<CounterRow>& rows, const std::string& className = kNet);

class PerfFixture : public testing::Test {
protected:
    /// Waits for the link, should a test before have cut it.
    PerfFixture();

    static CounterAgent& agent();
    static boost::intrusive_ptr<KXLAccessPointPrototype> accessPoint();

    /// @brief Waits until the link is up and has handled what the agent has sent so far.
    static bool settle();
    /// Sends a report to the monitor under test and waits until it has been handled.
    void report(const std::vector<wire::CounterGroup>& groups);

    /// The vocabulary of most tests: "bytes_in", "packets_in", "bytes_out", "packets_out" of type 2 in the network
    /// class; eight counters of type 1 in the quota class.
    static CounterClasses usualClasses();

    Readings read(const std::string& className = kNet) { return readingsOf(monitor.getStats(className)); }
    /// The requests that name this class.
    static std::vector<wire::MonitorStart> startsOf(const std::string& className);
    static std::vector<wire::CounterQuery> queriesOf(const std::string& className);

    /// A monitor that has not been asked for anything yet. It lives as long as the link: subscriptions do not keep the
    /// monitor that they report to.
    SNMPNodePerfomanceMonitor& monitor;
};

}  // namespace kx::test
