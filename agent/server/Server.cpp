#include "agent/server/Server.h"

#include <fmt/format.h>

#include <algorithm>

#include "agent/core/Log.h"
#include "wire/Protocol.h"

namespace kx::agent {
namespace {

FrameBody encodeHello(const ServerSettings& settings) {
    wire::Frame frame;
    *frame.mutable_hello() = wire::makeHello(settings.program);
    frame.mutable_hello()->set_server_eid(settings.serverEid.toWire());
    return encodeBody(frame);
}

FrameBody encodePong() {
    wire::Frame frame;
    frame.mutable_pong();
    return encodeBody(frame);
}

}  // namespace

Server::Server(boost::asio::io_context& io, ServerSettings settings, HostContent& content)
    : settings_(std::move(settings)),
      content_(content),
      file_(settings_.socketPath, settings_.access.group),
      hello_(encodeHello(settings_)),
      pong_(encodePong()),
      acceptor_(io, boost::asio::local::stream_protocol(), file_.releaseListener()),
      acceptTimer_(io) {}

Server::~Server() {
    for (auto& [key, connection] : connections_) {
        connection->abandon();
    }
}

void Server::accept() {
    acceptor_.async_accept(
        [this, alive = std::weak_ptr(alive_)](const boost::system::error_code& error, Connection::Socket socket) {
            if (!alive.expired() && error != boost::asio::error::operation_aborted) {
                accepted(error, std::move(socket));
            }
        });
}

void Server::accepted(const boost::system::error_code& error, Connection::Socket socket) {
    if (error) {
        acceptFailed(error);
        return;
    }
    acceptTrouble_.clear();
    admit(std::move(socket));
    accept();
}

/// Without a pause the connection that could not be accepted would make the very next try fail, and so on.
void Server::acceptFailed(const boost::system::error_code& error) {
    if (error != acceptTrouble_) {
        log::error(fmt::format("cannot accept connections on {}: {}", file_.path(), error.message()));
    }
    acceptTrouble_ = error;
    acceptTimer_.expires_after(settings_.limits.acceptPause);
    acceptTimer_.async_wait([this, alive = std::weak_ptr(alive_)](const boost::system::error_code& cancelled) {
        if (!alive.expired() && !cancelled) {
            accept();
        }
    });
}

void Server::admit(Connection::Socket socket) {
    const auto peer = identifyPeer(socket.native_handle());
    if (!peer) {
        log::warning("refused a peer of which the system does not tell who it is");
        return;
    }
    const std::size_t others = served();
    ConnectionOwner& owner = *this;
    const auto connection = std::make_shared<Connection>(std::move(socket), *peer, settings_.limits, owner);
    connections_.emplace(connection.get(), connection);
    if (!settings_.access.admits(*peer)) {
        connection->refuse(wire::ERROR_NOT_ALLOWED,
                           fmt::format("it is neither root nor a member of the group {}", kAgentGroup));
    } else if (others >= settings_.limits.maxConnections) {
        connection->refuse(wire::ERROR_TOO_MANY_CONNECTIONS,
                           fmt::format("all {} connections are taken", settings_.limits.maxConnections));
    } else {
        connection->start();
    }
    if (connection->isLeaving() && leaving() > settings_.limits.maxFarewells) {
        connection->close();
    }
}

std::size_t Server::served() const {
    return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                  [](const auto& entry) { return entry.second->isServed(); }));
}

std::size_t Server::leaving() const {
    return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                  [](const auto& entry) { return entry.second->isLeaving(); }));
}

void Server::connectionClosed(Connection& connection) {
    connections_.erase(&connection);
}

void Server::frameReceived(Connection& from, const wire::Frame& frame) {
    if (frame.has_snapshot_request()) {
        sendSnapshot(from, frame.request_id());
    } else if (frame.has_vocabulary_request()) {
        from.interests().vocabularies = true;
        from.send(frame.request_id(), content_.vocabularySet());
    } else if (frame.has_ping()) {
        from.send(frame.request_id(), pong_);
    }
    // Anything else comes from a newer minor version, or answers what was not asked.
}

/// The chunks are queued in one go, so every delta that follows is of a later generation than theirs.
void Server::sendSnapshot(Connection& to, std::uint64_t requestId) {
    to.interests().environments = true;
    for (const FrameBody& chunk : content_.inventory().snapshot()) {
        to.send(requestId, chunk);
    }
}

void Server::publish(const HostUpdate& update) {
    for (const auto& [key, connection] : connections_) {
        if (connection->interests().environments) {
            for (const FrameBody& delta : update.deltas) {
                connection->send(0, delta);
            }
        }
        if (connection->interests().vocabularies && update.vocabularySet) {
            connection->send(0, update.vocabularySet);
        }
    }
}

}  // namespace kx::agent
