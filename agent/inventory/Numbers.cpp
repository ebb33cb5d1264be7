#include "agent/inventory/Numbers.h"

#include <utility>

namespace kx::agent {

std::vector<Renumbered> Numbers::update(const std::vector<Environment>& environments) {
    const auto numberBefore = std::exchange(numberOf_, {});
    const auto ownerBefore = std::exchange(ownerOf_, {});
    for (const Environment& environment : environments) {
        numberOf_[environment.eid] = environment.veid.value_or(0);
        ownerOf_.try_emplace(environment.veid.value_or(0), environment.eid);
    }
    std::vector<Renumbered> renumbered;
    for (const Environment& environment : environments) {
        const std::int32_t number = environment.veid.value_or(0);
        const auto before = numberBefore.find(environment.eid);
        const auto owner = ownerBefore.find(number);
        const bool isTakenOver = number > 0 && owner != ownerBefore.end() && owner->second != environment.eid;
        const auto ownersNumber = isTakenOver ? numberOf_.find(owner->second) : numberOf_.end();
        const bool isFree = isTakenOver && (ownersNumber == numberOf_.end() || ownersNumber->second != number);
        if (isFree || (before != numberBefore.end() && before->second != number)) {
            renumbered.push_back({environment.eid, isFree ? std::optional(owner->second) : std::nullopt});
        }
    }
    return renumbered;
}

}  // namespace kx::agent
