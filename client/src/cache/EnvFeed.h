// Builds lists of environments out of the agent's snapshots and deltas.
//
// Thread promise: one thread, the loop's. What it publishes is immutable. It does no I/O and knows nothing of
// connections: messages go in, lists come out.
#pragma once

#include <cstdint>
#include <string>

#include "client/src/cache/EnvStore.h"
#include "wire/Protocol.h"

namespace kx::client {

/// @brief The state of one connection's environment feed.
class EnvFeed {
public:
    enum class Outcome {
        Ignored,    ///< nothing changed: an old delta, or one that the snapshot under way covers
        Pending,    ///< a snapshot is not complete yet
        Updated,    ///< current() is a new list
        Gap,        ///< a generation was missed: ask for a new snapshot
        Malformed,  ///< the message breaks the protocol; reason() says how
    };

    /// @param shown the list of an earlier connection; what is the same in a snapshot is taken from there
    explicit EnvFeed(EnvStoragePtr shown = {});

    /// @brief A snapshot has been asked for: deltas are ignored until it is there.
    void expectSnapshot();

    Outcome take(const wire::SnapshotChunk& chunk);
    Outcome take(const wire::Delta& delta);

    /// @return the list as of the last Updated; null before
    const EnvStoragePtr& current() const { return current_; }
    const std::string& reason() const { return reason_; }

private:
    Outcome malformed(const char* reason);
    bool isNextChunk(const wire::SnapshotChunk& chunk) const;
    bool fits(const wire::SnapshotChunk& chunk);
    bool append(const wire::SnapshotChunk& chunk);
    KXLEnvCache::EnvPtr takeShared(KXLEnvCache::EnvPtr environment);
    void finishSnapshot();

    EnvStoragePtr shown_;  ///< what readers have: the last list published, on this connection or an earlier one
    std::size_t shownBytes_ = 0;
    EnvStoragePtr current_;
    std::uint64_t generation_ = 0;
    bool awaitingSnapshot_ = true;

    boost::intrusive_ptr<EnvStorage> incoming_;  ///< the snapshot under way; null between snapshots
    std::shared_ptr<EnvIndex> incomingIndex_;
    std::size_t incomingBytes_ = 0;  ///< of what is not shared with shown_
    std::uint64_t incomingGeneration_ = 0;
    std::uint32_t nextIndex_ = 0;

    std::string reason_;
};

}  // namespace kx::client
