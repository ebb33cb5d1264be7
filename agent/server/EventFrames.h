// Events as frames: many in one, and a new one whenever one is full.
//
// Plain functions, any thread.
#pragma once

#include <chrono>
#include <vector>

#include "agent/alerts/Alert.h"
#include "agent/inventory/EnvironmentChange.h"
#include "agent/inventory/FrameBody.h"

namespace kx::agent {

/// A frame that has reached this size takes no further event. Far below the limit of the wire, because a reader gets
/// to see nothing of a frame before it has all of it; even with one event more, whose name may take several MiB, the
/// frame is below that limit.
inline constexpr std::size_t kEventFrameBytes = std::size_t{256} * 1024;

/// The longest text of an alert that is taken from outside: it bounds what is remembered of each, and what a reader
/// must hold for one.
inline constexpr std::size_t kMaxAlertTextBytes = std::size_t{256} * 1024;

/// @brief Encodes changes of environments.
/// @param changes in order
/// @param time when they happened
std::vector<FrameBody> encodeEvents(const std::vector<EnvironmentChange>& changes, WallTime time);

/// @brief Encodes alerts.
/// @param alerts in order
/// @param sequence of the message, see EventMessage; when it is not 0 the alerts must fit into one frame
std::vector<FrameBody> encodeEvents(const std::vector<DatedAlert>& alerts, std::uint64_t sequence = 0);

}  // namespace kx::agent
