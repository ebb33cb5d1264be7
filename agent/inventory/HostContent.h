// All that clients can ask of the host: its environments and its vocabularies, as they were last found.
//
// Main thread only.
#pragma once

#include <vector>

#include "agent/inventory/HostImage.h"
#include "agent/inventory/Inventory.h"
#include "agent/inventory/Numbers.h"

namespace kx::agent {

/// What is new to clients that know the content before.
struct HostUpdate {
    InventoryDeltas deltas;                  ///< in order; empty when the environments are the same
    FrameBody vocabularySet;                 ///< null when the vocabularies are the same
    std::vector<Renumbered> renumbered;      ///< containers with other numbers
    std::vector<EnvironmentChange> changes;  ///< what the deltas change; nothing for the first image
};

/// The present content.
class HostContent {
public:
    /// @param host see Inventory
    explicit HostContent(Environment host);

    /// @brief Takes over what a backend has found. The first image is the beginning and no change, though clients may
    /// have been shown the host without containers before it. Vocabularies that do not fit into a frame are logged and
    /// not taken.
    /// @param isOutstanding see Inventory
    /// @return what has changed by it
    HostUpdate apply(HostImage image, const Inventory::IsOutstanding& isOutstanding = {});

    /// @return whether an image has been applied
    bool begun() const { return begun_; }

    Inventory& inventory() { return inventory_; }
    const Inventory& inventory() const { return inventory_; }

    /// @return the vocabularies, encoded; never null
    const FrameBody& vocabularySet() const { return vocabularySet_; }

private:
    Inventory inventory_;
    Numbers numbers_;
    std::vector<Vocabulary> vocabularies_;
    FrameBody vocabularySet_;
    bool begun_ = false;  ///< an image has been applied
};

}  // namespace kx::agent
