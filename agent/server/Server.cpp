#include "agent/server/Server.h"

#include <fmt/format.h>
#include <malloc.h>

#include <algorithm>

#include "agent/base/Log.h"
#include "agent/server/EventFrames.h"
#include "wire/Protocol.h"

namespace kx::agent {
namespace {

FrameBody encodeHello(const ServerSettings& settings) {
    wire::Frame frame;
    *frame.mutable_hello() = wire::makeHello(settings.program);
    for (const auto capability : {wire::kCapabilityEventAcks, wire::kCapabilityDeparted}) {
        frame.mutable_hello()->add_capabilities(std::string(capability));
    }
    frame.mutable_hello()->set_server_eid(settings.serverEid.toWire());
    return encodeBody(frame);
}

FrameBody encodePong(const Freshness& freshness) {
    wire::Frame frame;
    wire::Pong& pong = *frame.mutable_pong();
    if (freshness.age) {
        pong.set_content_age_ms(static_cast<std::uint64_t>(freshness.age->count()));
    }
    pong.set_silent_containers(freshness.silent);
    return encodeBody(frame);
}

FrameBody encodeDone() {
    wire::Frame frame;
    frame.mutable_done();
    return encodeBody(frame);
}

/// @return what is wrong with the form of a request; empty when it is good
std::string faultOf(const wire::AlertRaise& request) {
    if (request.target_case() == wire::AlertRaise::TARGET_NOT_SET) {
        return "the alert has no target: neither an identifier nor a container's number";
    }
    if (request.has_eid() && !Eid::fromWire(request.eid())) {
        return fmt::format("an identifier has {} bytes, this one has {}", wire::kEidBytes, request.eid().size());
    }
    if (request.text().size() > kMaxAlertTextBytes) {
        return fmt::format("the alert's text has {} bytes, the limit is {}", request.text().size(), kMaxAlertTextBytes);
    }
    return {};
}

/// Connections that this was held for leave enough free memory behind to be worth giving back.
constexpr std::size_t kLargeBytes = std::size_t{256} * 1024;

constexpr const char* kNoCounters = "there are no counters here";

/// Counters are told while their client is there.
CounterService::Send sendingTo(Connection& connection) {
    return [weak = connection.weak_from_this()](std::uint64_t requestId, const FrameBody& body) {
        if (const auto client = weak.lock()) {
            client->send(requestId, body);
        }
    };
}

}  // namespace

Server::Server(boost::asio::io_context& io, ServerSettings settings, HostContent& content)
    : settings_(std::move(settings)),
      content_(content),
      file_(std::make_unique<SocketFile>(settings_.socketPath, settings_.access.group)),
      hello_(encodeHello(settings_)),
      done_(encodeDone()),
      events_(settings_.serverEid, settings_.consumers, settings_.clock),
      acceptor_(io, boost::asio::local::stream_protocol(), file_->releaseListener()),
      acceptTimer_(io),
      socketTimer_(io) {
    watchSocket();
}

Server::~Server() {
    for (auto& [key, connection] : connections_) {
        connection->abandon();
        if (settings_.counters != nullptr) {
            settings_.counters->forget(key);
        }
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
        log::error(fmt::format("cannot accept connections on {}: {}", file_->path(), error.message()));
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
    const std::string full = settings_.access.admits(*peer) ? whyFull(*peer) : "";
    const bool hasPlace = full.empty() || makePlaceFor(*peer);
    ConnectionOwner& owner = *this;
    const auto connection = std::make_shared<Connection>(std::move(socket), *peer, settings_.limits, owner);
    connections_.emplace(connection.get(), connection);
    if (!settings_.access.admits(*peer)) {
        connection->refuse(wire::ERROR_NOT_ALLOWED,
                           fmt::format("it is neither root nor a member of the group {}", kAgentGroup));
    } else if (!hasPlace) {
        connection->refuse(wire::ERROR_TOO_MANY_CONNECTIONS, full);
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

bool Server::isPrivileged(const PeerIdentity& peer) const {
    return peer.uid == 0 || peer.uid == settings_.access.ownUid;
}

/// @return why there is no place for one more connection of this peer; empty when there is
std::string Server::whyFull(const PeerIdentity& peer) const {
    const ServerLimits& limits = settings_.limits;
    const std::size_t most = limits.maxConnections - std::min(limits.reservedConnections, limits.maxConnections / 2);
    const auto ofUser = [&](const auto& entry) {
        return entry.second->isServed() && entry.second->peer().uid == peer.uid;
    };
    const auto count = std::count_if(connections_.begin(), connections_.end(), ofUser);
    if (!isPrivileged(peer) && static_cast<std::size_t>(count) >= limits.maxConnectionsOfUser) {
        return fmt::format("all {} connections of its user are taken", limits.maxConnectionsOfUser);
    }
    if (served() >= (isPrivileged(peer) ? limits.maxConnections : most)) {
        return fmt::format("all {} connections are taken", limits.maxConnections);
    }
    return {};
}

/// Who has asked for nothing gives way to another of its user; to root, whoever it is.
bool Server::makePlaceFor(const PeerIdentity& peer) {
    const auto idle = std::find_if(connections_.begin(), connections_.end(), [&](const auto& entry) {
        Connection& other = *entry.second;
        const bool mayGo = other.peer().uid == peer.uid || (isPrivileged(peer) && !isPrivileged(other.peer()));
        return other.isServed() && !other.interests().anything && mayGo && !isPrivileged(other.peer());
    });
    if (idle == connections_.end()) {
        return false;
    }
    idle->second->refuse(wire::ERROR_TOO_MANY_CONNECTIONS, "it asks for nothing, and another one needs its place");
    return true;
}

/// One that root uses is bounded by itself; all others share what may be held for them.
void Server::grown(Connection& connection) {
    if (isPrivileged(connection.peer())) {
        return;
    }
    std::size_t held = 0;
    Connection* largest = &connection;
    for (const auto& [key, other] : connections_) {
        if (other->isServed() && !isPrivileged(other->peer())) {
            held += other->held();
            largest = other->held() > largest->held() ? key : largest;
        }
    }
    if (held > settings_.limits.maxHeldBytes) {
        largest->drop(fmt::format("{} bytes are held for all clients, most of them for this one", held));
    }
}

/// Clients find an agent whose socket was removed by nothing but a new one.
void Server::watchSocket() {
    socketTimer_.expires_after(settings_.limits.socketCheck);
    socketTimer_.async_wait([this, alive = std::weak_ptr(alive_)](const boost::system::error_code& cancelled) {
        if (!alive.expired() && !cancelled) {
            restoreSocket();
            watchSocket();
        }
    });
}

void Server::restoreSocket() {
    if (!file_->isGone()) {
        return;
    }
    std::string trouble;
    try {
        auto file = std::make_unique<SocketFile>(settings_.socketPath, settings_.access.group);
        boost::system::error_code ignored;
        acceptor_.close(ignored);
        acceptor_.assign(boost::asio::local::stream_protocol(), file->releaseListener());
        file_ = std::move(file);
        log::warning(fmt::format("{} was removed: made it anew", file_->path()));
        accept();
    } catch (const std::exception& error) {
        trouble = error.what();
    }
    if (!trouble.empty() && trouble != socketTrouble_) {
        log::error(trouble);
    }
    socketTrouble_ = std::move(trouble);
}

std::size_t Server::leaving() const {
    return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                  [](const auto& entry) { return entry.second->isLeaving(); }));
}

void Server::connectionClosed(Connection& connection) {
    if (settings_.counters != nullptr) {
        settings_.counters->forget(&connection);
    }
    const bool wasLarge = connection.mostHeld() >= kLargeBytes;
    events_.forget(connection);
    environments_.erase(&connection);
    connections_.erase(&connection);
    if (wasLarge) {
        ::malloc_trim(0);
    }
}

void Server::frameReceived(Connection& from, const wire::Frame& frame) {
    from.interests().anything = from.interests().anything || !frame.has_ping();
    if (frame.has_snapshot_request()) {
        sendSnapshot(from, frame.request_id());
    } else if (frame.has_vocabulary_request()) {
        from.interests().vocabularies = true;
        from.send(frame.request_id(), content_.vocabularySet());
    } else if (frame.has_ping()) {
        from.send(frame.request_id(), encodePong(settings_.freshness()));
    } else if (frame.has_event_subscribe()) {
        subscribe(from, frame);
    } else if (frame.has_event_ack()) {
        events_.acknowledge(from, frame.event_ack());
    } else if (frame.has_alert_raise()) {
        raise(from, frame);
    } else if (frame.has_monitor_start()) {
        startMonitor(from, frame);
    } else if (frame.has_monitor_stop() && settings_.counters != nullptr) {
        settings_.counters->stop(&from, frame.monitor_stop().monitor());
    } else if (frame.has_counter_query()) {
        answerCounters(from, frame);
    }
    // Anything else comes from a newer minor version, or answers what was not asked.
}

void Server::sendSnapshot(Connection& to, std::uint64_t requestId) {
    const auto stream = environments_.try_emplace(&to, to, content_.inventory()).first;
    if (!stream->second.ask(requestId)) {
        to.refuse(wire::ERROR_MALFORMED, "it asks for snapshots without taking them");
    }
}

void Server::drained(Connection& connection) {
    const auto stream = environments_.find(&connection);
    if (stream != environments_.end()) {
        stream->second.pump();
    }
    events_.drained(connection);
}

void Server::subscribe(Connection& from, const wire::Frame& frame) {
    const std::string& name = frame.event_subscribe().name();
    if (name != wire::kEventsName) {
        refuse(from, frame.request_id(),
               fmt::format("there is nothing called \"{}\" to subscribe to, only \"{}\"", wire::printable(name),
                           wire::kEventsName));
        return;
    }
    from.send(frame.request_id(), done_);
    events_.subscribe(from, frame.event_subscribe());
}

void Server::raise(Connection& from, const wire::Frame& frame) {
    std::string why;
    auto signal = signalFor(frame.alert_raise(), why);
    if (!signal) {
        refuse(from, frame.request_id(), why);
        return;
    }
    from.send(frame.request_id(), done_);
    settings_.raiser->raise(std::move(*signal));
}

/// @param why in words, when nothing is returned
std::optional<AlertSignal> Server::signalFor(const wire::AlertRaise& request, std::string& why) const {
    why = faultOf(request);
    if (why.empty()) {
        why = settings_.raiser == nullptr ? "nobody here can raise alerts" : settings_.raiser->whyNoAlerts();
    }
    if (!why.empty()) {
        return std::nullopt;
    }
    const auto about =
        request.has_eid() ? Eid::fromWire(request.eid()) : content_.inventory().findByNumber(request.veid());
    if (!about) {
        why = fmt::format("there is no container with the number {}", request.veid());
        return std::nullopt;
    }
    return AlertSignal{*about, kRaisedSource, request.code(), request.text(), request.value()};
}

void Server::startMonitor(Connection& from, const wire::Frame& frame) {
    const std::string why =
        settings_.counters == nullptr
            ? kNoCounters
            : settings_.counters->start(&from, sendingTo(from), frame.request_id(), frame.monitor_start());
    if (why.empty()) {
        from.send(frame.request_id(), done_);
    } else {
        refuse(from, frame.request_id(), why);
    }
}

void Server::answerCounters(Connection& from, const wire::Frame& frame) {
    const std::string why =
        settings_.counters == nullptr
            ? kNoCounters
            : settings_.counters->query(&from, sendingTo(from), frame.request_id(), frame.counter_query());
    if (!why.empty()) {
        refuse(from, frame.request_id(), why);
    }
}

void Server::refuse(Connection& from, std::uint64_t requestId, std::string_view why) {
    wire::Frame frame;
    frame.mutable_refusal()->set_text(std::string(why));
    from.send(requestId, encodeBody(frame));
}

/// Deltas are on their way before the events about them, so that who learns of a new container by an event can find
/// it. Most clients have a connection for either.
void Server::publish(const HostUpdate& update) {
    publish(update.deltas);
    if (update.vocabularySet) {
        for (const auto& [key, connection] : connections_) {
            if (connection->interests().vocabularies) {
                connection->send(0, update.vocabularySet);
            }
        }
    }
    if (update.changes.empty()) {
        return;
    }
    for (const auto& [connection, stream] : environments_) {
        connection->flush();
    }
    events_.publish(update.changes);
}

void Server::publish(const InventoryDeltas& deltas) {
    for (auto& [connection, stream] : environments_) {
        stream.publish(deltas);
    }
}

}  // namespace kx::agent
