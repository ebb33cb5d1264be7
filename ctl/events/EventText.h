// An event as a line for a person. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <kxl/KXLEvent.h>

#include "ctl/events/ContainerNames.h"

namespace kx::ctl {

/// @return "2025-11-21 12:00:00.123" in local time; "-" for 0, a time that is not known
std::string localTime(std::uint64_t timeMs);

/// @return "101 web", "host", the identifier of what has no number; "-" for nothing. Fit for a terminal.
std::string containerText(const std::optional<ContainerName>& about);

/// @brief Time, kind, container, state or code, value, and text, two spaces apart. Whatever comes from outside is
/// escaped.
/// @param about nothing when it is about no environment
/// @return one line without a line end
std::string textLine(const KXLEvent& event, const std::optional<ContainerName>& about);

}  // namespace kx::ctl
