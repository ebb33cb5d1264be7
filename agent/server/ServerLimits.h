// What the server allows its peers, in one place. Tests make them smaller. Plain values.
#pragma once

#include <chrono>
#include <cstddef>

namespace kx::agent {

/// Limits of a server and of each of its connections.
struct ServerLimits {
    /// Connections served at a time. A host has a handful of programs that connect.
    std::size_t maxConnections = 256;

    /// Load of a connection's outbox at which it is dropped: many times the largest usual snapshot, so that only a
    /// peer that does not read gets there.
    std::size_t maxUnsentBytes = std::size_t{64} * 1024 * 1024;

    /// Load of an outbox at which events are held back for its connection, and coalesced, until it has read.
    std::size_t maxUnsentEventBytes = std::size_t{256} * 1024;

    /// From the connection's start to its Hello. A peer sends it at once.
    std::chrono::milliseconds handshake{5000};

    /// From a refusal to the close: time for the peer to read why, even if it is still sending.
    std::chrono::milliseconds farewell{1000};

    /// Refused connections that may wait for their peer at a time; beyond it they are closed right away.
    std::size_t maxFarewells = 64;

    /// Pause after the system has refused to accept a connection, for lack of descriptors or memory.
    std::chrono::milliseconds acceptPause{100};
};

}  // namespace kx::agent
