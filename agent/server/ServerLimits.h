// What the server allows its peers, in one place. Tests make them smaller. Plain values.
#pragma once

#include <chrono>
#include <cstddef>

namespace kx::agent {

/// Limits of a server and of each of its connections.
struct ServerLimits {
    /// Connections served at a time. A host has a handful of programs that connect.
    std::size_t maxConnections = 256;

    /// Of these, connections of one user who is not root, and those left for root and the agent's own user.
    std::size_t maxConnectionsOfUser = 32;
    std::size_t reservedConnections = 64;

    /// A client's frame, in bytes and in fields: enough for a request that names as many containers as it may.
    std::size_t maxRequestBytes = std::size_t{1536} * 1024;
    std::size_t maxRequestFields = 70'000;

    /// What is held for all clients together that are not root's: bytes not read by them, and parts of requests. Beyond
    /// it the one that holds most is dropped.
    std::size_t maxHeldBytes = std::size_t{32} * 1024 * 1024;

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

    /// Between checks that the socket is still where clients look for it.
    std::chrono::milliseconds socketCheck{2000};

    /// Pause after the system has refused to accept a connection, for lack of descriptors or memory.
    std::chrono::milliseconds acceptPause{100};
};

}  // namespace kx::agent
