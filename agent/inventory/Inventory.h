// The list of environments as clients see it, numbered: every change has its generation.
//
// Keeps no copy of what it sends: snapshots are encoded when asked for and shared by those who ask while one is
// still being sent. Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/inventory/Environment.h"
#include "agent/inventory/EnvironmentChange.h"
#include "agent/inventory/FrameBody.h"

namespace kx::agent {

/// The host's environment and, behind it, the containers.
class Inventory {
public:
    /// An environment that would take more than this in a frame is left out of the list, with a log line. Together
    /// with kFrameBytes it keeps every frame below the limit of the wire.
    static constexpr std::size_t kMaxEnvironmentBytes = std::size_t{8} * 1024 * 1024;

    /// A frame that has reached this size takes no further environment.
    static constexpr std::size_t kFrameBytes = std::size_t{4} * 1024 * 1024;

    /// @param host the host's own environment; always the first of the list
    explicit Inventory(Environment host);

    /// @return the number of the present list, from 1
    std::uint64_t generation() const { return generation_; }

    /// @return all environments, the host's first
    const std::vector<Environment>& environments() const { return environments_; }

    /// @brief Makes the given containers the list behind the host. Those that are known keep their place, new ones
    /// are appended. Of several with one identifier the first counts.
    /// @param containers in the backend's order
    /// @return the deltas that lead from the old list to the new one, one generation each; none when nothing differs,
    /// more than one only when a single one would not fit into a frame
    /// @param told gets one element for each environment that differs, in the order of the deltas; may be null
    std::vector<FrameBody> apply(std::vector<Environment> containers, std::vector<EnvironmentChange>* told = nullptr);

    /// @return the first environment of the list with this number; nothing when there is none
    std::optional<Eid> findByNumber(std::int32_t veid) const;

    /// @brief The present list in chunks, in order.
    std::vector<FrameBody> snapshot();

private:
    struct Chunk {
        std::size_t first;
        std::size_t end;
        std::weak_ptr<const std::string> body;  ///< while somebody is still sending it
    };
    struct Changes;

    std::vector<Environment> withoutUnfit(std::vector<Environment> containers);
    Changes takeOver(std::vector<Environment> containers);
    void removeGone(const std::vector<bool>& present);
    void cutIntoChunks();
    FrameBody encodeChunk(std::uint32_t number) const;
    void complain(const Environment& environment, const std::string& why, std::set<Eid>& complaints);

    std::uint64_t generation_ = 1;
    std::vector<Environment> environments_;
    std::unordered_map<Eid, std::size_t, EidHash> positions_;
    std::vector<Chunk> chunks_;   ///< of the present generation; empty until asked for
    std::set<Eid> complainedOf_;  ///< identifiers with something wrong in the last list: each is logged once
};

}  // namespace kx::agent
