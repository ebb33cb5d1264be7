// The words for the numbers and type names of environments and events. Free functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <kxl/KXLEvent.h>

namespace kx::ctl {

/// @return "alert", "change", or the category of an event of another kind, which may be any bytes
std::string kindOf(const KXLEvent& event);

/// @return "clear", "warning", "critical"; null for another code
const char* alertWord(std::int32_t code);

/// @return "added", "modified", "removed", "unknown"
const char* changeWord(KXLEnvironmentChangeData::Kind kind);

/// @return see KXLEnvStatus; null for another state
const char* stateWord(std::int32_t state);

/// @return the state that has this word; nothing when none has
std::optional<std::int32_t> stateOf(std::string_view word);

/// @return see KXLEnvStatus; null for another transition
const char* transitionWord(std::int32_t transition);

/// @return the word, or the number where there is none
std::string wordOrNumber(const char* word, std::int32_t number);

}  // namespace kx::ctl
