// Serves the agent's socket: accepts clients, answers what they ask, tells them what changes.
//
// Main thread only, on the io_context it was given.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "agent/alerts/Alert.h"
#include "agent/counters/CounterService.h"
#include "agent/inventory/HostContent.h"
#include "agent/server/AccessPolicy.h"
#include "agent/server/Connection.h"
#include "agent/server/EnvironmentStream.h"
#include "agent/server/EventPublisher.h"
#include "agent/server/ServerLimits.h"
#include "agent/server/SocketFile.h"

namespace kx::agent {

/// Makes alerts up, where that may be.
class AlertRaiser {
public:
    virtual ~AlertRaiser() = default;

    /// @return why the host cannot be told to report alerts, in words; empty when it can
    virtual std::string whyNoAlerts() const = 0;

    /// @brief Has an alert reported as if it had happened.
    virtual void raise(AlertSignal signal) = 0;
};

/// What a server is told of its surroundings.
struct ServerSettings {
    std::string socketPath;  ///< absolute
    std::string program;     ///< how the agent introduces itself, e.g. "kxagentd 0.1.0"
    Eid serverEid;           ///< the identifier of this host's agent
    AccessPolicy access;
    ServerLimits limits;
    AlertRaiser* raiser = nullptr;        ///< null: nobody; else must outlive the server
    EventConsumers* consumers = nullptr;  ///< null: nothing is kept for anybody; else must outlive the server
    CounterService* counters = nullptr;   ///< null: there are none; else must outlive the server
    std::function<Freshness()> freshness = [] { return Freshness(); };
    std::function<WallTime()> clock = std::chrono::system_clock::now;
};

/// The socket and its connections.
class Server : private ConnectionOwner {
public:
    /// @brief Listens; clients wait until accept() is called.
    /// @param io must outlive the server
    /// @param content what is served; must outlive the server
    /// @throws std::runtime_error when the socket cannot be made, see SocketFile
    Server(boost::asio::io_context& io, ServerSettings settings, HostContent& content);

    /// @brief Says good-bye to all clients and removes the socket.
    ~Server() override;

    /// @brief Begins to accept clients.
    void accept();

    /// @brief Sends what has changed to those who asked to be kept informed.
    void publish(const HostUpdate& update);
    void publish(const InventoryDeltas& deltas);

    /// @brief Sends alerts to those who have subscribed to events.
    void publish(const std::vector<Alert>& alerts) { events_.publish(alerts); }

    const std::string& socketPath() const { return file_->path(); }

private:
    FrameBody hello() override { return hello_; }
    void frameReceived(Connection& from, const wire::Frame& frame) override;
    void drained(Connection& connection) override;
    void grown(Connection& connection) override;
    void connectionClosed(Connection& connection) override;

    void accepted(const boost::system::error_code& error, Connection::Socket socket);
    void acceptFailed(const boost::system::error_code& error);
    void admit(Connection::Socket socket);
    std::string whyFull(const PeerIdentity& peer) const;
    bool makePlaceFor(const PeerIdentity& peer);
    bool isPrivileged(const PeerIdentity& peer) const;
    void watchSocket();
    void restoreSocket();
    void subscribe(Connection& from, const wire::Frame& frame);
    void raise(Connection& from, const wire::Frame& frame);
    void startMonitor(Connection& from, const wire::Frame& frame);
    void answerCounters(Connection& from, const wire::Frame& frame);
    std::optional<AlertSignal> signalFor(const wire::AlertRaise& request, std::string& why) const;
    static void refuse(Connection& from, std::uint64_t requestId, std::string_view why);
    void sendSnapshot(Connection& to, std::uint64_t requestId);
    std::size_t served() const;
    std::size_t leaving() const;

    const ServerSettings settings_;
    HostContent& content_;
    std::unique_ptr<SocketFile> file_;  ///< never null
    FrameBody hello_;
    FrameBody done_;
    EventPublisher events_;
    std::unordered_map<Connection*, EnvironmentStream> environments_;  ///< who has asked for them
    boost::asio::local::stream_protocol::acceptor acceptor_;
    boost::asio::steady_timer acceptTimer_;
    boost::asio::steady_timer socketTimer_;
    std::string socketTrouble_;                ///< logged last
    boost::system::error_code acceptTrouble_;  ///< the last one logged: repeated trouble is one line
    std::unordered_map<Connection*, std::shared_ptr<Connection>> connections_;
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);  ///< what late handlers look at
};

}  // namespace kx::agent
