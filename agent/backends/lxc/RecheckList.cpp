#include "agent/backends/lxc/RecheckList.h"

#include <algorithm>

namespace kx::agent::lxc {

void RecheckList::add(const std::string& name, unsigned needs, Clock::time_point due) {
    const auto [entry, fresh] = entries_.try_emplace(name, Entry{needs, due});
    if (fresh) {
        return;
    }
    entry->second.needs |= needs;
    entry->second.due = std::min(entry->second.due, due);
}

std::optional<Clock::time_point> RecheckList::earliest() const {
    std::optional<Clock::time_point> result;
    for (const auto& [name, entry] : entries_) {
        if (!result || entry.due < *result) {
            result = entry.due;
        }
    }
    return result;
}

std::vector<std::pair<std::string, unsigned>> RecheckList::takeDue(Clock::time_point now) {
    std::vector<std::pair<std::string, unsigned>> due;
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        if (entry->second.due > now) {
            ++entry;
            continue;
        }
        due.emplace_back(entry->first, entry->second.needs);
        entry = entries_.erase(entry);
    }
    return due;
}

}  // namespace kx::agent::lxc
