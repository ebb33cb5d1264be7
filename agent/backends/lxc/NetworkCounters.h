// The counters of running containers' network interfaces: class "counters_kx_net".
//
// One thread, which enters the containers' network namespaces for a moment (see NetworkSpace.h).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "agent/backends/lxc/CounterTarget.h"
#include "agent/backends/lxc/LinkDump.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/backends/lxc/NetworkSpace.h"
#include "agent/counters/CounterTables.h"

namespace kx::agent::lxc {

/// Reads them container by container and remembers what was read last.
class NetworkCounters {
public:
    /// @param log gets a line when the counters of a container cannot be read, once until they can
    /// @throws std::runtime_error when the system has not what it needs
    explicit NetworkCounters(LogSink log);

    /// @brief Adds a container's rows to the tables, one at least: an interface each, named by its index; of a
    /// container without interfaces one of zeros. Where nothing can be read, what was read last stands there as not
    /// known; so do zeros for a container that shares the host's network, whose counters are not its own.
    /// @return false when it has ended: then it has no rows
    bool read(const CounterTarget& target);

    /// @brief Ends a reading.
    /// @return its tables, see CounterTables::take()
    std::vector<CounterTable> take();

private:
    /// What is known of one run of a container.
    struct Run {
        pid_t initPid = -1;
        std::vector<InterfaceCounters> last;
        std::string problem;  ///< last complaint, to make it once a change
        bool cutIsLogged = false;
        std::uint64_t reading = 0;  ///< in which it was seen last
    };

    InterfaceList readList(const CounterTarget& target, bool& ownNetwork);
    void complain(Run& run, const std::string& name, const InterfaceList& list);
    void addRows(const CounterTarget& target, const std::vector<InterfaceCounters>& interfaces, bool known);

    const LogSink log_;
    const std::vector<std::string> names_;
    NetworkTraveller traveller_;
    CounterTables tables_;
    std::map<Eid, Run> runs_;
    std::uint64_t reading_ = 1;
};

}  // namespace kx::agent::lxc
