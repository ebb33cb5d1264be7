// One look at a container through liblxc: what its configuration says and what its monitor answers.
//
// The only place that calls liblxc. Its calls wait for the disk, and the monitor's answers for up to the breaker's
// limit; the backend's worker makes them. A container object is kept for the time of one look: it holds a parsed
// configuration that grows old.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "agent/backends/lxc/StuckCallBreaker.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// What became of a look.
enum class ProbeResult {
    Done,
    NoAnswer,   ///< the configuration was read; the monitor did not answer in time: it runs hooks, or hangs
    Malformed,  ///< liblxc cannot read the configuration
    Busy,       ///< another program holds LXC's lock on the container, or is creating it; look again later
    Gone,       ///< there is no such container
};

/// Networks of a configuration may have any number in their keys, lxc.net.N; those from here on are passed over, for
/// liblxc tells how many there are, but has to be asked for each number.
inline constexpr unsigned kMaxNetworks = 10'000;

/// The findings. Which are filled: see ProbeResult.
struct ContainerProbe {
    ProbeResult result = ProbeResult::Gone;
    std::string hostname;            ///< lxc.uts.name; empty: not configured
    std::string rootfs;              ///< lxc.rootfs.path as configured; empty: not configured
    std::vector<Address> addresses;  ///< lxc.net.N.ipv4.address of all networks, in the order of their numbers
    unsigned networksLeftOut = 0;    ///< with a number of kMaxNetworks or more
    std::string lxcState;            ///< in LXC's words; empty when LXC could not tell
    pid_t initPid = -1;              ///< -1: none
};

/// @brief Looks at a container.
/// A lock held by another program is not waited for: deleting a container holds it until the last file is gone.
/// Nor is a container opened whose creation has not finished: liblxc deletes one whose creator has died.
/// @param path LXC's path
/// @param name the container's name
/// @param breaker ends questions that are not answered
ContainerProbe probeContainer(const std::string& path, const std::string& name, StuckCallBreaker& breaker);

}  // namespace kx::agent::lxc
