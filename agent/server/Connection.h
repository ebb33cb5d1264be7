// One client of the agent: framing, handshake, refusal, and a queue of what it is to be sent.
//
// A connection's life:
//   AwaitingHello   from start(); a Hello of our major leads to Open, anything else, or nothing in time, to Leaving
//   Open            frames go to the owner; a frame that breaks the rules leads to Leaving
//   Leaving         the Error frame is on its way; what the peer still sends is read and thrown away, because
//                   closing a unix socket with unread bytes in it takes the Error away from the peer. Ends when the
//                   peer closes, or after a short while
//   Closed          the owner is told, later, from the event loop
// From each of them the peer's own close leads to Closed without a log line; a refusal or drop is logged once.
//
// Main thread only. Held by its owner and by its pending operations.
#pragma once

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/server/Outbox.h"
#include "agent/server/PeerIdentity.h"
#include "agent/server/ServerLimits.h"
#include "wire/Framing.h"

namespace kx::agent {

class Connection;

/// Whom a connection belongs to.
class ConnectionOwner {
public:
    virtual ~ConnectionOwner() = default;

    /// @return the agent's own Hello, encoded
    virtual FrameBody hello() = 0;

    /// @brief A frame after the handshake. May be of a kind the owner does not know.
    virtual void frameReceived(Connection& from, const wire::Frame& frame) = 0;

    /// @brief More is held for the peer than before.
    virtual void grown(Connection& connection) = 0;

    /// @brief The peer has read: little of what it was sent is left.
    virtual void drained(Connection& connection) = 0;

    /// @brief The connection is Closed and may be forgotten.
    virtual void connectionClosed(Connection& connection) = 0;
};

/// A connected socket and its peer.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket = boost::asio::local::stream_protocol::socket;

    /// @param owner must outlive the connection, or call abandon() first
    Connection(Socket socket, PeerIdentity peer, const ServerLimits& limits, ConnectionOwner& owner);

    /// @brief Begins to wait for the peer's Hello.
    void start();

    /// @brief Says why to the log, in one line, and to the peer, and closes. Also in place of start().
    /// @param code for the peer's program
    /// @param reason for people
    void refuse(wire::ErrorCode code, std::string_view reason);

    /// @brief Queues a frame. A peer that has too much queued already is dropped.
    /// @param requestId number of the request that is answered, 0 for none
    /// @param body not null
    void send(std::uint64_t requestId, const FrameBody& body);

    /// @brief Queues several.
    /// @param bodies not null, in order
    void sendTogether(const std::vector<FrameBody>& bodies);

    /// @brief Writes what is queued, as much as the socket takes now, instead of in its turn.
    void flush();

    /// @brief Says good-bye for the whole agent and closes at once: what does not fit into the socket is lost.
    /// Nothing of the owner is called from here on.
    void abandon();

    /// @brief Closes at once. The owner is told later.
    void close();

    /// @return load of what the peer has not read, see Outbox
    std::size_t unsent() const { return outbox_.load(); }
    /// @return the same, with what it has sent of a request that is not complete
    std::size_t held() const { return outbox_.load() + reader_.buffered(); }
    /// @return the most that was held so far
    std::size_t mostHeld() const { return mostHeld_; }
    const PeerIdentity& peer() const { return peer_; }

    /// @brief Drops the peer, with a line in the log.
    void drop(std::string_view reason);
    const ServerLimits& limits() const { return limits_; }

    bool isServed() const { return state_ == State::AwaitingHello || state_ == State::Open; }
    bool isLeaving() const { return state_ == State::Leaving; }

    /// What this client has asked to be kept informed of; the owner's notes.
    struct Interests {
        bool vocabularies = false;
        bool departed = false;  ///< it knows environments that are gone
        bool anything = false;  ///< it has asked for something but signs of life
    };
    Interests& interests() { return interests_; }

private:
    enum class State { AwaitingHello, Open, Leaving, Closed };

    void waitForInput();
    void readSome();
    void takeFrames();
    void takeFrame(std::string_view payload);
    void takeHello(const wire::Hello& hello);
    bool takesMore();
    void noteGrowth();
    void waitForRoom();
    void writeSome();
    void setDeadline(std::chrono::milliseconds fromNow);
    void deadlinePassed();

    Socket socket_;
    PeerIdentity peer_;
    const ServerLimits limits_;
    ConnectionOwner* owner_;
    boost::asio::steady_timer deadline_;  ///< of the handshake, later of the farewell
    State state_ = State::AwaitingHello;
    wire::FrameReader reader_;
    Outbox outbox_;
    std::size_t mostHeld_ = 0;
    bool waitingForInput_ = false;
    bool waitingForRoom_ = false;
    Interests interests_;
};

}  // namespace kx::agent
