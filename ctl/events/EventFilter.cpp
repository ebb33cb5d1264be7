#include "ctl/events/EventFilter.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>

#include "ctl/ExitCode.h"
#include "ctl/Numbers.h"
#include "ctl/Printable.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

/// The keys, and the words that each may have; none: any.
const std::vector<std::string> kKeys{"kind", "severity", "change", "state", "ve"};
const std::vector<std::vector<std::string>> kWords{{"alert", "change"},
                                                   {"clear", "warning", "critical"},
                                                   {"added", "modified", "removed"},
                                                   {"unknown", "stopped", "running", "frozen"},
                                                   {}};

/// @return what an event has under a key other than "ve"; nothing when its kind has no such key
std::optional<std::string> valueIn(const KXLEvent& event, const std::string& key) {
    if (key == "kind") {
        return kindOf(event);
    }
    if (const auto* alert = dynamic_cast<const KXLResourceAlertData*>(event.getData().get())) {
        return key == "severity" ? std::optional(wordOrNumber(alertWord(alert->alertCode), alert->alertCode))
                                 : std::nullopt;
    }
    if (const auto* change = dynamic_cast<const KXLEnvironmentChangeData*>(event.getData().get())) {
        if (key == "change") {
            return changeWord(change->kind);
        }
        return key == "state" ? std::optional(wordOrNumber(stateWord(change->state), change->state)) : std::nullopt;
    }
    return std::nullopt;
}

bool isMeant(const ContainerName& about, const std::string& word) {
    std::vector<std::string> texts{about.eid.toString(), about.name.value_or("")};
    if (about.isHost) {
        texts.emplace_back("host");
    }
    if (about.veid) {
        texts.push_back(std::to_string(*about.veid));
    }
    return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
        return text == word || ::fnmatch(word.c_str(), text.c_str(), 0) == 0;
    });
}

}  // namespace

EventFilter::EventFilter(const std::vector<std::string>& conditions) {
    for (const std::string& condition : conditions) {
        const std::size_t equals = condition.find('=');
        if (equals == std::string::npos || equals + 1 == condition.size()) {
            throw Failure(ExitCode::WrongUsage,
                          fmt::format("--filter: {} is not of the form KEY=VALUE", printableWord(condition)));
        }
        const std::size_t at = readWord("--filter", condition.substr(0, equals), kKeys);
        const std::string& key = kKeys[at];
        const std::string value = condition.substr(equals + 1);
        if (!kWords[at].empty()) {
            readWord("--filter " + key, value, kWords[at]);
        }
        wanted_[key].push_back(value);
    }
}

bool EventFilter::matches(const KXLEvent& event, const std::optional<ContainerName>& about) const {
    return std::all_of(wanted_.begin(), wanted_.end(), [&](const auto& wanted) {
        const auto& [key, values] = wanted;
        if (key == "ve") {
            return about && std::any_of(values.begin(), values.end(),
                                        [&](const std::string& word) { return isMeant(*about, word); });
        }
        const auto value = valueIn(event, key);
        return value && std::find(values.begin(), values.end(), *value) != values.end();
    });
}

}  // namespace kx::ctl
