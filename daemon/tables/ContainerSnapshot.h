// The snapshot of the tables that list containers, or what their configurations hold.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <utility>

#include "tables/ContainerWalk.h"

/// @brief The environments as they were when the walk began: a counted reference to the cache's list, of which
/// nothing is copied. What the agent changes meanwhile is seen by the next request.
/// @tparam Cursor made from two positions in the list; stands on the first row from the first of them on
template <typename Cursor>
class ContainerSnapshot {
public:
    /// Takes the agent's list; empty when there is no agent.
    ContainerSnapshot() : ContainerSnapshot(currentEnvironments()) {}
    /// @param environments the list to walk
    explicit ContainerSnapshot(KXLEnvCache::EnvValuesList environments) : environments_(std::move(environments)) {}

    /// @return on the first row; equal to end() when there is none
    Cursor begin() const { return Cursor(environments_.begin(), environments_.end()); }
    Cursor end() const { return Cursor(environments_.end(), environments_.end()); }

private:
    KXLEnvCache::EnvValuesList environments_;
};
