// The monitors of one connection.
//
// Thread promise: the loop thread only.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <kxl/KXLMonitorAgent.h>

#include "client/src/counters/CounterDecoder.h"

namespace kx::client {

using MonitorHandlerPtr = boost::intrusive_ptr<KXLMonitorAgent::Handler>;
using CounterReport = std::shared_ptr<const std::vector<KXLMonitorData>>;

/// @brief Who gets which reports.
class Monitors {
public:
    /// Runs a delivery in its turn.
    using Deliver = std::function<void(std::function<void()>)>;

    explicit Monitors(Deliver deliver) : deliver_(std::move(deliver)) {}

    /// @param number of the request that started it
    /// @param classes what it reports
    void add(std::uint64_t number, MonitorHandlerPtr handler, std::set<std::string> classes);
    /// @brief The agent has taken a monitor on.
    void started(std::uint64_t number);
    /// @brief Forgets a monitor and tells its handler.
    /// @param code a KXLRequestError
    void end(std::uint64_t number, int code);
    /// @brief Forgets all, and tells their handlers.
    /// @param code a KXLRequestError
    void endAll(int code);
    /// @brief Forgets all in silence.
    void drop();

    bool has(std::uint64_t number) const { return monitors_.contains(number); }

    /// @return where a monitor's next report goes: its last one, to be written over, when nobody has it any more
    std::shared_ptr<std::vector<KXLMonitorData>> storageFor(std::uint64_t number);

    /// @brief Delivers a report of a monitor. One of an unknown monitor is of one that was stopped meanwhile.
    void report(std::uint64_t number, const CounterReport& data);
    /// @brief Delivers an answer that nobody waits for any more, to the first monitor that reports its classes.
    void reportLate(const std::set<std::string>& classes, const CounterReport& data);

private:
    struct Monitor {
        MonitorHandlerPtr handler;
        std::set<std::string> classes;
        std::shared_ptr<std::vector<KXLMonitorData>> last{};
    };

    void tell(const Monitor& monitor, int code);
    void hand(const Monitor& monitor, const CounterReport& data);

    const Deliver deliver_;
    std::map<std::uint64_t, Monitor> monitors_;
};

}  // namespace kx::client
