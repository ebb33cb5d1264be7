// What is remembered of alerts over a restart, as values and as bytes. Plain functions, any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/alerts/EventConsumers.h"
#include "agent/inventory/Environment.h"

namespace kx::agent {

/// See alertstate.proto.
struct AlertState {
    std::vector<KeptConsumer> consumers;
    std::vector<DatedAlert> waiting;
    std::vector<AlertSignal> raised;
    std::vector<Environment> environments;  ///< identifier, type, name, number and host name only
};

/// @return the content of the file
std::string encodeState(const AlertState& state);

/// @return nothing when the bytes are not what encodeState() makes
std::optional<AlertState> decodeState(std::string_view bytes);

}  // namespace kx::agent
