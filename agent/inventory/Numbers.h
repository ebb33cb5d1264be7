// Which container has which number, to find out when a number passes from one to another. One thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "agent/inventory/Environment.h"

namespace kx::agent {

/// A container that has another number than before, or that has one that was another's.
struct Renumbered {
    Eid eid;
    std::optional<Eid> former;  ///< who had its number before and has it no more

    bool operator==(const Renumbered&) const = default;
};

/// The numbers as they were last.
class Numbers {
public:
    /// @param environments all of them; of several with one number the first counts as its owner
    std::vector<Renumbered> update(const std::vector<Environment>& environments);

private:
    std::unordered_map<Eid, std::int32_t, EidHash> numberOf_;  ///< of all; 0: none
    std::unordered_map<std::int32_t, Eid> ownerOf_;
};

}  // namespace kx::agent
