// The walk over the host's containers that the container table and its sub-tables share.
//
// Thread promise: main thread. A walk and its copies keep the list they walk alive, whatever the client library
// makes of its cache meanwhile.
#pragma once

#include <kxl/KXLEnvCache.h>

/// @brief The agent's environments, as they are now. An agent link that is not up yet is tried first.
/// @return empty when there is no agent, or nothing has come from it
KXLEnvCache::EnvValuesList currentEnvironments();

/// @brief A position in a list of environments that only ever stands on containers, or at the end. List order;
/// nothing is sorted.
class ContainerWalk {
public:
    using Position = KXLEnvCache::EnvValuesList::const_iterator;

    /// A walk over nothing.
    ContainerWalk() = default;

    /// @brief Stands on the first container from begin on.
    /// @param end of the same list
    ContainerWalk(Position begin, Position end);

    /// @brief Moves to the next container. Not to be called at the end.
    void advance();

    bool atEnd() const { return current_ == end_; }
    Position position() const { return current_; }

    /// @return the current container; null at the end. Valid as long as a walk over the same list is
    const KXLEnv* environment() const;

    /// Walks over the same list are equal when they stand on the same container.
    bool operator==(const ContainerWalk& other) const { return current_ == other.current_; }

private:
    void skipOtherEnvironments();

    Position current_;
    Position end_;
};
