// A running container as the readers of counters and the watches of resources know it. A plain value.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "agent/base/OwnedDescriptor.h"
#include "agent/inventory/Eid.h"

namespace kx::agent::lxc {

/// A running container.
struct CounterTarget {
    Eid eid;
    std::string name;
    std::int32_t veid = 0;
    pid_t initPid = -1;
    std::shared_ptr<const OwnedDescriptor> pidfd;  ///< of that process
    std::string rootFolder;                        ///< empty: none that can be seen from the host
    std::string cgroupFolder{};                    ///< as configured; see payloadPath()
};

}  // namespace kx::agent::lxc
