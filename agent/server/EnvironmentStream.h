// What one client is sent of the environments: the list, a chunk at a time as fast as it reads, then every change.
//
// Main thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include "agent/inventory/Inventory.h"
#include "agent/server/Connection.h"

namespace kx::agent {

/// Ends with its connection.
class EnvironmentStream {
public:
    /// Snapshots that a client has asked for and not yet been sent; clients ask for one at a time.
    static constexpr std::size_t kMaxRequests = 8;

    /// @param connection must outlive the stream
    /// @param inventory likewise
    EnvironmentStream(Connection& connection, Inventory& inventory) : connection_(connection), inventory_(inventory) {}

    /// @brief The client asks for the list, and what changes from then on.
    /// @return false when too many requests are not answered yet
    bool ask(std::uint64_t requestId);

    /// @brief The list has changed. Changes wait until the snapshot that is under way is sent.
    void publish(const InventoryDeltas& deltas);

    /// @brief Sends what the client takes. To be called when it has read.
    void pump();

private:
    void beginNext();
    void sendChunk();
    void sendLater();

    Connection& connection_;
    Inventory& inventory_;
    std::deque<std::uint64_t> requests_;  ///< not begun
    std::shared_ptr<Snapshot> snapshot_;  ///< under way
    std::uint64_t requestId_ = 0;         ///< of it
    std::size_t nextChunk_ = 0;
    std::deque<FrameBody> later_;  ///< changes since it was taken
    std::size_t laterBytes_ = 0;
};

}  // namespace kx::agent
