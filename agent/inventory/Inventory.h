// The list of environments as clients see it, numbered: every change has its generation.
//
// An environment that is gone may be needed a little longer, by clients that are still to be sent alerts about it: to
// those that know the capability it stays, marked as departed, to all others it is removed at once.
//
// Keeps no copy of what it sends: snapshots are encoded when asked for and shared by those who ask while one is
// still being sent. Main thread only.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/inventory/Environment.h"
#include "agent/inventory/EnvironmentChange.h"
#include "agent/inventory/FrameBody.h"
#include "agent/inventory/Snapshot.h"

namespace kx::agent {

/// Steps from one list to another, one generation each.
struct InventoryDeltas {
    std::vector<FrameBody> withDeparted;  ///< for clients that know departed environments
    std::vector<FrameBody> plain;         ///< for all others, as many

    bool empty() const { return plain.empty(); }
    std::size_t size() const { return plain.size(); }
};

/// The host's environment and, behind it, the containers.
class Inventory {
public:
    /// An environment that would take more than this in a frame is left out of the list, with a log line. Together
    /// with kFrameBytes it keeps every frame below the limit of the wire.
    static constexpr std::size_t kMaxEnvironmentBytes = std::size_t{8} * 1024 * 1024;

    /// A delta that has reached this size takes no further environment.
    static constexpr std::size_t kFrameBytes = Snapshot::kChunkBytes;

    /// Whether something about an environment is still to be sent.
    using IsOutstanding = std::function<bool(const Eid&)>;

    /// @param host the host's own environment; always the first of the list
    explicit Inventory(Environment host);

    /// @return the number of the present list, from 1
    std::uint64_t generation() const { return generation_; }

    /// @return all environments, the host's first
    const std::vector<Environment>& environments() const { return environments_; }

    /// @brief Makes the given containers the list behind the host. Those that are known keep their place, new ones
    /// are appended. Of several with one identifier the first counts.
    /// @param containers in the backend's order
    /// @param changes gets one element for each environment that differs, in the order of the deltas; may be null
    /// @param isOutstanding asked about those that are gone: they stay departed if so; none: no one does
    /// @return the deltas that lead from the old list to the new one; none when nothing differs, more than one only
    /// when a single one would not fit into a frame
    InventoryDeltas apply(std::vector<Environment> containers, std::vector<EnvironmentChange>* changes = nullptr,
                          const IsOutstanding& isOutstanding = {});

    /// @brief Lets those departed environments go about which nothing is outstanding any more.
    /// @return see apply()
    InventoryDeltas release(const IsOutstanding& isOutstanding);

    /// @brief Takes over environments that had departed, or may have, when a former agent ended. Before the first
    /// apply(), which decides which are there again.
    void restoreDeparted(std::vector<Environment> environments);

    /// @return environments that are gone, and not yet forgotten
    const std::vector<Environment>& departed() const { return departed_; }

    /// @return whether the environment is in the list; departed ones are not
    bool contains(const Eid& eid) const { return positions_.contains(eid); }

    /// @return the environment, a departed one too; null when it is unknown. Until the next change
    const Environment* find(const Eid& eid) const;

    /// @return the first environment of the list with this number; nothing when there is none
    std::optional<Eid> findByNumber(std::int32_t veid) const;

    /// @brief The present list in chunks, in order.
    /// @param withDeparted for a client that knows departed environments
    std::shared_ptr<Snapshot> snapshot(bool withDeparted = false);

private:
    struct Changes;

    std::vector<Environment> withoutUnfit(std::vector<Environment> containers);
    Changes takeOver(std::vector<Environment> containers);
    void removeGone(const std::vector<bool>& present);
    void takeBack(const std::vector<Environment>& containers);
    void completeSnapshots();
    void complain(const Environment& environment, const std::string& why, std::set<Eid>& complaints);

    std::uint64_t generation_ = 1;
    std::vector<Environment> environments_;
    std::unordered_map<Eid, std::size_t, EidHash> positions_;
    std::vector<Environment> departed_;
    std::array<std::shared_ptr<Snapshot>, 2> snapshots_;  ///< of the present generation; null until asked for
    std::set<Eid> complainedOf_;  ///< identifiers with something wrong in the last list: each is logged once
};

}  // namespace kx::agent
