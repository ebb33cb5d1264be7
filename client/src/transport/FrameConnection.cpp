#include "client/src/transport/FrameConnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

namespace kx::client {

FrameConnection::FrameConnection(std::shared_ptr<StreamSocket> socket, std::weak_ptr<FrameListener> listener)
    : socket_(std::move(socket)), listener_(std::move(listener)) {}

void FrameConnection::start() {
    read();
}

void FrameConnection::resume() {
    paused_ = false;
    handleFrames();
    readOn();
}

void FrameConnection::close() {
    open_ = false;
    boost::system::error_code ignored;  // there is nothing else to do with a socket that does not close
    socket_->close(ignored);
}

void FrameConnection::readOn() {
    if (open_ && !paused_ && !reading_) {
        read();
    }
}

void FrameConnection::read() {
    reading_ = true;
    socket_->async_read_some(boost::asio::buffer(buffer_),
                             [self = shared_from_this()](boost::system::error_code error, std::size_t size) {
                                 self->received(error, size);
                             });
}

void FrameConnection::received(boost::system::error_code error, std::size_t size) {
    reading_ = false;
    if (!open_) {
        return;
    }
    if (error) {
        end();
        return;
    }
    reader_.append(std::string_view(buffer_.data(), size));
    handleFrames();
    readOn();
}

void FrameConnection::handleFrames() {
    while (open_ && !paused_) {
        const wire::FrameReader::Result result = reader_.next();
        if (result.status == wire::FrameReader::Status::NeedMore) {
            return;
        }
        if (result.status == wire::FrameReader::Status::TooLarge) {
            malformed("a frame of " + std::to_string(result.bytes) + " bytes is over the limit of " +
                      std::to_string(wire::kMaxFrameBytes));
            return;
        }
        if (!handlePayload(result.payload)) {
            malformed("a frame that is not a message");
        }
    }
}

bool FrameConnection::handlePayload(std::string_view payload) {
    const auto listener = listener_.lock();
    if (listener && listener->payloadReceived(*this, payload)) {
        return true;
    }
    wire::Frame frame;
    if (!wire::decodeFrame(payload, frame)) {
        return false;
    }
    if (listener) {
        listener->frameReceived(*this, frame);
    }
    return true;
}

void FrameConnection::send(const wire::Frame& frame) {
    auto bytes = wire::encodeFrame(frame);
    if (!open_ || !bytes) {
        return;
    }
    unsent_.push_back(std::move(*bytes));
    if (unsent_.size() == 1) {
        write();
    }
}

void FrameConnection::write() {
    boost::asio::async_write(*socket_, boost::asio::buffer(unsent_.front()),
                             [self = shared_from_this()](boost::system::error_code error, std::size_t) {
                                 if (!self->open_ || error) {
                                     // A peer that cannot be written to is found by the read that is always under
                                     // way, after what it still sent: perhaps why it closed.
                                     return;
                                 }
                                 self->unsent_.pop_front();
                                 if (!self->unsent_.empty()) {
                                     self->write();
                                 }
                             });
}

void FrameConnection::end() {
    close();
    if (const auto listener = listener_.lock()) {
        listener->connectionEnded(*this);
    }
}

void FrameConnection::malformed(const std::string& reason) {
    close();
    if (const auto listener = listener_.lock()) {
        listener->connectionMalformed(*this, reason);
    }
}

}  // namespace kx::client
