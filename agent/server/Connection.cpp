#include "agent/server/Connection.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <boost/asio/post.hpp>
#include <cerrno>

#include "agent/base/Log.h"
#include "agent/server/RequestFields.h"
#include "wire/Protocol.h"

namespace kx::agent {
namespace {

/// Pieces handed to the system in one call.
constexpr std::size_t kPiecesPerCall = 64;

/// Calls before the event loop is given back to the other connections.
constexpr int kCallsPerTurn = 16;

bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

Connection::Connection(Socket socket, PeerIdentity peer, const ServerLimits& limits, ConnectionOwner& owner)
    : socket_(std::move(socket)),
      peer_(std::move(peer)),
      limits_(limits),
      owner_(&owner),
      deadline_(socket_.get_executor()),
      reader_(limits.maxRequestBytes) {}

void Connection::start() {
    setDeadline(limits_.handshake);
    waitForInput();
}

void Connection::refuse(wire::ErrorCode code, std::string_view reason) {
    if (!isServed()) {
        return;
    }
    log::warning(fmt::format("refused {}: {}", peer_.describe(), reason));
    state_ = State::Leaving;
    outbox_.push(0, encodeBody(wire::makeErrorFrame(code, reason)));
    setDeadline(limits_.farewell);
    waitForInput();
    writeSome();
}

void Connection::send(std::uint64_t requestId, const FrameBody& body) {
    if (!isServed() || !takesMore()) {
        return;
    }
    outbox_.push(requestId, body);
    if (takesMore()) {
        noteGrowth();
    }
    if (isServed()) {
        waitForRoom();
    }
}

void Connection::noteGrowth() {
    mostHeld_ = std::max(mostHeld_, held());
    if (owner_ != nullptr) {
        owner_->grown(*this);
    }
}

void Connection::sendTogether(const std::vector<FrameBody>& bodies) {
    for (const FrameBody& body : bodies) {
        send(0, body);
    }
}

/// Drops the peer if it has not read more than the limit.
bool Connection::takesMore() {
    if (outbox_.load() <= limits_.maxUnsentBytes) {
        return true;
    }
    drop(fmt::format("it does not read, more than {} bytes are waiting for it", limits_.maxUnsentBytes));
    return false;
}

void Connection::drop(std::string_view reason) {
    log::warning(fmt::format("dropped {}: {}", peer_.describe(), reason));
    close();
}

void Connection::flush() {
    if (isServed()) {
        writeSome();
    }
}

void Connection::abandon() {
    owner_ = nullptr;
    if (isServed()) {
        outbox_.push(0, encodeBody(wire::makeErrorFrame(wire::ERROR_SHUTTING_DOWN, "the agent is shutting down")));
        writeSome();
    }
    close();
}

void Connection::close() {
    if (state_ == State::Closed) {
        return;
    }
    state_ = State::Closed;
    boost::system::error_code ignored;
    socket_.close(ignored);
    deadline_.cancel();
    outbox_.clear();
    reader_ = wire::FrameReader(0);
    // Later, because the owner may be going through its connections right now.
    boost::asio::post(socket_.get_executor(), [self = shared_from_this()] {
        if (self->owner_ != nullptr) {
            self->owner_->connectionClosed(*self);
        }
    });
}

void Connection::waitForInput() {
    if (waitingForInput_) {
        return;
    }
    waitingForInput_ = true;
    socket_.async_wait(Socket::wait_read, [self = shared_from_this()](const boost::system::error_code& error) {
        self->waitingForInput_ = false;
        if (!error && self->state_ != State::Closed) {
            self->readSome();
        }
    });
}

void Connection::readSome() {
    // One for all connections, which read one after the other: an idle connection holds no buffer.
    static std::array<char, std::size_t{64} * 1024> buffer;
    const ssize_t size = ::recv(socket_.native_handle(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size == 0 || (size < 0 && !isTemporary(errno))) {
        close();
        return;
    }
    if (size > 0 && isServed()) {
        reader_.append({buffer.data(), static_cast<std::size_t>(size)});
        takeFrames();
        noteGrowth();
    }
    if (state_ != State::Closed) {
        waitForInput();
    }
}

void Connection::takeFrames() {
    while (isServed()) {
        const wire::FrameReader::Result result = reader_.next();
        if (result.status == wire::FrameReader::Status::NeedMore) {
            return;
        }
        if (result.status == wire::FrameReader::Status::TooLarge) {
            refuse(wire::ERROR_MALFORMED, fmt::format("it announced a frame of {} bytes, the limit is {}", result.bytes,
                                                      limits_.maxRequestBytes));
            return;
        }
        takeFrame(result.payload);
    }
}

void Connection::takeFrame(std::string_view payload) {
    wire::Frame frame;
    if (countFields(payload, limits_.maxRequestFields) > limits_.maxRequestFields) {
        refuse(wire::ERROR_MALFORMED, fmt::format("it sent a frame of more than {} fields", limits_.maxRequestFields));
    } else if (!wire::decodeFrame(payload, frame)) {
        refuse(wire::ERROR_MALFORMED, "it sent a frame that is not a message");
    } else if (state_ == State::Open && frame.has_hello()) {
        refuse(wire::ERROR_MALFORMED, "it sent a second Hello");
    } else if (state_ == State::Open) {
        owner_->frameReceived(*this, frame);
    } else if (frame.has_hello()) {
        takeHello(frame.hello());
    } else {
        refuse(wire::ERROR_MALFORMED, "its first frame was not a Hello");
    }
}

void Connection::takeHello(const wire::Hello& hello) {
    peer_.program = wire::printable(hello.program());
    if (hello.protocol_major() != wire::kProtocolMajor) {
        refuse(wire::ERROR_PROTOCOL_VERSION,
               fmt::format("it speaks version {} of the protocol, this agent speaks version {}", hello.protocol_major(),
                           wire::kProtocolMajor));
        return;
    }
    state_ = State::Open;
    interests_.departed = wire::hasCapability(hello, wire::kCapabilityDeparted);
    deadline_.cancel();
    send(0, owner_->hello());
}

void Connection::waitForRoom() {
    if (waitingForRoom_) {
        return;
    }
    waitingForRoom_ = true;
    socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const boost::system::error_code& error) {
        self->waitingForRoom_ = false;
        if (!error && self->state_ != State::Closed) {
            self->writeSome();
        }
    });
}

void Connection::writeSome() {
    for (int call = 0; call < kCallsPerTurn && !outbox_.empty(); ++call) {
        std::array<iovec, kPiecesPerCall> pieces;
        msghdr message{};
        message.msg_iov = pieces.data();
        message.msg_iovlen = outbox_.next(pieces.data(), pieces.size());
        const ssize_t sent = ::sendmsg(socket_.native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && !isTemporary(errno)) {
            close();
            return;
        }
        if (sent < 0) {
            break;
        }
        outbox_.drop(static_cast<std::size_t>(sent));
    }
    if (state_ == State::Open && outbox_.load() <= limits_.maxUnsentEventBytes && owner_ != nullptr) {
        owner_->drained(*this);
    }
    if (!outbox_.empty()) {
        waitForRoom();
    } else if (state_ == State::Leaving) {
        boost::system::error_code ignored;
        socket_.shutdown(Socket::shutdown_send, ignored);
    }
}

void Connection::setDeadline(std::chrono::milliseconds fromNow) {
    deadline_.expires_after(fromNow);
    deadline_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        // A wait that had already ended when the deadline was moved or cancelled is not told so by its error.
        if (!error && self->deadline_.expiry() <= std::chrono::steady_clock::now()) {
            self->deadlinePassed();
        }
    });
}

void Connection::deadlinePassed() {
    if (state_ == State::AwaitingHello) {
        refuse(wire::ERROR_UNSPECIFIED,
               fmt::format("it did not introduce itself within {} ms", limits_.handshake.count()));
    } else if (state_ == State::Leaving) {
        close();
    }
}

}  // namespace kx::agent
