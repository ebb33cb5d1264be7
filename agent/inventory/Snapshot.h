// The list of environments of one generation, cut into chunks that are encoded when they are sent: a list of a hundred
// thousand neither keeps the agent busy at a stretch nor is in memory once for each client.
//
// Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/inventory/Environment.h"
#include "agent/inventory/FrameBody.h"

namespace kx::agent {

/// Belongs to an inventory, which calls complete() before it changes the list; clients may need it for longer.
class Snapshot {
public:
    /// A chunk that has reached this size takes no further environment.
    static constexpr std::size_t kChunkBytes = std::size_t{4} * 1024 * 1024;

    /// @param environments in order; must stay as they are until complete()
    /// @param departed those that are gone, likewise
    Snapshot(std::uint64_t generation, const std::vector<Environment>& environments,
             const std::vector<Environment>& departed);

    /// @return number of chunks, at least 1
    std::size_t size() const { return chunks_.size(); }

    /// @return a chunk, encoded; shared by those who are sending it
    FrameBody chunk(std::size_t number);

    /// @brief Encodes what has not been: nothing of the list is needed from here on.
    void complete();

    /// @return all chunks
    std::vector<FrameBody> all();

private:
    struct Chunk {
        std::size_t first;
        std::size_t end;
        std::weak_ptr<const std::string> sent;  ///< while somebody is still sending it
        FrameBody kept;                         ///< after complete()
    };

    FrameBody encode(std::size_t number) const;

    std::uint64_t generation_;
    std::vector<const Environment*> list_;
    std::size_t present_;  ///< of list_; behind them are those that are gone
    std::vector<Chunk> chunks_;
};

}  // namespace kx::agent
