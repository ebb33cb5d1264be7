// What liblxc says of a container: of its configuration, and of its state.
//
// The only place that calls liblxc. Reading a configuration touches no file but the text handed in; asking for the
// state neither needs the configuration nor reads it. Asking waits for the monitor, for up to the breaker's limit; the
// backend's worker makes both.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "agent/backends/lxc/StuckCallBreaker.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// Networks of a configuration may have any number in their keys, lxc.net.N; those from here on are passed over, for
/// liblxc tells how many there are, but has to be asked for each number.
inline constexpr unsigned kMaxNetworks = 10'000;

/// What a configuration says.
struct ContainerConfig {
    std::string hostname;            ///< lxc.uts.name; empty: not configured
    std::string rootfs;              ///< lxc.rootfs.path as configured; empty: not configured
    std::string cgroupFolder;        ///< lxc.cgroup.dir.container; empty: not configured
    std::vector<Address> addresses;  ///< lxc.net.N.ipv4.address of all networks, in the order of their numbers
    unsigned networksLeftOut = 0;    ///< with a number of kMaxNetworks or more
};

/// @brief Reads a configuration. liblxc complains of a malformed one on standard error.
/// @param name the container's name
/// @param text see ContainerConfig.h
/// @return nothing when liblxc rejects it
std::optional<ContainerConfig> parseConfig(const std::string& name, const std::string& text);

/// What a monitor says.
struct MonitorAnswer {
    std::string lxcState = "STOPPED";  ///< in LXC's words; empty when LXC could not tell
    pid_t initPid = -1;                ///< -1: none
};

/// @brief Asks a container's monitor for its state.
/// @param path LXC's path
/// @param name the container's name
/// @param breaker ends a question that is not answered
/// @return nothing when there was no answer in time
std::optional<MonitorAnswer> askMonitor(const std::string& path, const std::string& name, StuckCallBreaker& breaker);

}  // namespace kx::agent::lxc
