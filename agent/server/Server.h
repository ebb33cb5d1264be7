// Serves the agent's socket: accepts clients, answers what they ask, tells them what changes.
//
// Main thread only, on the io_context it was given.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <string>
#include <unordered_map>

#include "agent/inventory/HostContent.h"
#include "agent/server/AccessPolicy.h"
#include "agent/server/Connection.h"
#include "agent/server/ServerLimits.h"
#include "agent/server/SocketFile.h"

namespace kx::agent {

/// What a server is told of its surroundings.
struct ServerSettings {
    std::string socketPath;  ///< absolute
    std::string program;     ///< how the agent introduces itself, e.g. "kxagentd 0.1.0"
    Eid serverEid;           ///< the identifier of this host's agent
    AccessPolicy access;
    ServerLimits limits;
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

    const std::string& socketPath() const { return file_.path(); }

private:
    FrameBody hello() override { return hello_; }
    void frameReceived(Connection& from, const wire::Frame& frame) override;
    void connectionClosed(Connection& connection) override;

    void accepted(const boost::system::error_code& error, Connection::Socket socket);
    void acceptFailed(const boost::system::error_code& error);
    void admit(Connection::Socket socket);
    void sendSnapshot(Connection& to, std::uint64_t requestId);
    std::size_t served() const;
    std::size_t leaving() const;

    const ServerSettings settings_;
    HostContent& content_;
    SocketFile file_;
    FrameBody hello_;
    FrameBody pong_;
    boost::asio::local::stream_protocol::acceptor acceptor_;
    boost::asio::steady_timer acceptTimer_;
    boost::system::error_code acceptTrouble_;  ///< the last one logged: repeated trouble is one line
    std::unordered_map<Connection*, std::shared_ptr<Connection>> connections_;
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);  ///< what late handlers look at
};

}  // namespace kx::agent
