// Keeps the watches of resources and of disk quotas informed of who runs.
//
// Threads: update() on one thread, the worker's. Each watch has a thread of its own.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agent/backends/lxc/CounterThread.h"
#include "agent/backends/lxc/QuotaWatch.h"
#include "agent/backends/lxc/ResourceWatch.h"

namespace kx::agent::lxc {

/// Tells the watches of each run's beginning and end.
class RunningResources {
public:
    /// @param host whom alerts of the host are about
    /// @param sink gets the signals, on the watches' threads
    /// @param log gets log lines
    /// @throws std::runtime_error when the system has not what it needs
    RunningResources(const Eid& host, SignalSink sink, LogSink log);

    /// @param running all containers that run
    void update(const std::vector<CounterTarget>& running);

private:
    ResourceWatch watch_;
    QuotaWatch quotas_;
    /// The run that is tracked: its init process, and CounterTarget::cgroupFolder.
    using Run = std::pair<pid_t, std::string>;
    std::map<Eid, Run> tracked_;
};

}  // namespace kx::agent::lxc
