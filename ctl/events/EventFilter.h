// Which events are shown. Values; any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <kxl/KXLEvent.h>

#include "ctl/events/ContainerNames.h"

namespace kx::ctl {

/// @brief Conditions of the form KEY=VALUE. An event has to match one value of each key that was given.
class EventFilter {
public:
    /// @param conditions of the keys kind (alert, change), severity (clear, warning, critical), change (added,
    /// modified, removed), state (a word for it), and ve (a number, a name, an identifier, "host", or a pattern, see
    /// glob(7))
    /// @throws Failure of wrong usage when one is not understood
    explicit EventFilter(const std::vector<std::string>& conditions);

    /// @param about nothing when the event is about no environment
    bool matches(const KXLEvent& event, const std::optional<ContainerName>& about) const;

private:
    std::map<std::string, std::vector<std::string>> wanted_;  ///< key -> values
};

}  // namespace kx::ctl
