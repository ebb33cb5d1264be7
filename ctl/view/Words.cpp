#include "ctl/view/Words.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace kx::ctl {
namespace {

constexpr std::array kAlerts{"clear", "warning", "critical"};
constexpr std::array kChanges{"unknown", "added", "modified", "removed"};
constexpr std::array kStates{"unknown", "stopped", "running", "frozen"};
constexpr std::array kTransitions{"none", "starting", "stopping", "freezing", "thawing", "aborting"};

template <std::size_t Size>
const char* wordAt(const std::array<const char*, Size>& words, std::int32_t number) {
    return number >= 0 && static_cast<std::size_t>(number) < Size ? words[static_cast<std::size_t>(number)] : nullptr;
}

}  // namespace

std::string kindOf(const KXLEvent& event) {
    if (event.getCategory() == KXLResourceAlertData::category) {
        return "alert";
    }
    return event.getCategory() == KXLEnvironmentChangeData::category ? "change" : event.getCategory();
}

const char* alertWord(std::int32_t code) {
    return wordAt(kAlerts, code);
}

const char* changeWord(KXLEnvironmentChangeData::Kind kind) {
    return wordAt(kChanges, static_cast<std::int32_t>(kind));
}

const char* stateWord(std::int32_t state) {
    return wordAt(kStates, state);
}

std::optional<std::int32_t> stateOf(std::string_view word) {
    const auto found = std::find(kStates.begin(), kStates.end(), word);
    return found == kStates.end() ? std::nullopt : std::optional(static_cast<std::int32_t>(found - kStates.begin()));
}

const char* transitionWord(std::int32_t transition) {
    return wordAt(kTransitions, transition);
}

std::string wordOrNumber(const char* word, std::int32_t number) {
    return word != nullptr ? word : std::to_string(number);
}

}  // namespace kx::ctl
