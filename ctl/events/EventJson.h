// An event as a JSON object, for programs. Any thread.
#pragma once

#include <optional>

#include <kxl/KXLEvent.h>

#include "ctl/Json.h"
#include "ctl/events/ContainerNames.h"

namespace kx::ctl {

/// @brief All that is known of an event, numbers exact, texts as putText sets them. Keys of what is not known are
/// absent.
/// @param about nothing when it is about no environment
Json eventJson(const KXLEvent& event, const std::optional<ContainerName>& about);

}  // namespace kx::ctl
