// What the tests of the agent share: environments to begin with, and reading back what was encoded.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "agent/inventory/Environment.h"
#include "agent/inventory/FrameBody.h"
#include "agent/inventory/Inventory.h"

namespace kx::agent::test {

inline Environment hostOf() {
    Environment host;
    host.eid = Eid::fromName("test machine", "host");
    host.type = kHostType;
    host.name = "the host";
    return host;
}

/// @return a container whose identifier comes from its name
inline Environment container(const std::string& name) {
    Environment made;
    made.eid = Eid::fromName("test machine", "container/" + name);
    made.name = name;
    return made;
}

/// @return the message; an empty one when the body is not one
inline wire::Frame decode(const FrameBody& body) {
    wire::Frame frame;
    if (!body || !wire::decodeFrame(*body, frame)) {
        frame.Clear();
    }
    return frame;
}

inline std::vector<wire::Delta> deltasIn(const std::vector<FrameBody>& bodies) {
    std::vector<wire::Delta> deltas;
    std::transform(bodies.begin(), bodies.end(), std::back_inserter(deltas),
                   [](const FrameBody& body) { return decode(body).delta(); });
    return deltas;
}

inline std::vector<wire::Delta> deltasIn(const InventoryDeltas& deltas) {
    return deltasIn(deltas.plain);
}

}  // namespace kx::agent::test
