#include "client/src/transport/FrameConnection.h"

#include <malloc.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include "client/src/values/Limits.h"
#include "wire/FrameCost.h"

namespace kx::client {

FrameConnection::FrameConnection(std::shared_ptr<StreamSocket> socket, std::weak_ptr<FrameListener> listener)
    : socket_(std::move(socket)), listener_(std::move(listener)) {}

void FrameConnection::start() {
    read();
}

void FrameConnection::resume() {
    paused_ = false;
    handleFrames();
    returnMemory();
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
    returnMemory();
    readOn();
}

// The allocator keeps what the loop thread frees for that thread alone.
void FrameConnection::returnMemory() {
    if (paused_ || (open_ && handledBytes_ < kTrimBytes)) {
        return;
    }
    handledBytes_ = 0;
    reader_.append({});  // lets go of what was read
    malloc_trim(0);
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
    handledBytes_ += payload.size();
    const auto listener = listener_.lock();
    if (listener && listener->payloadReceived(*this, payload)) {
        return true;
    }
    if (wire::decodedBytes(payload) > kMaxDecodedFrameBytes) {
        malformed("a frame of " + std::to_string(payload.size()) + " bytes that would take more than " +
                  std::to_string(kMaxDecodedFrameBytes / kMebibyte) + " MiB decoded");
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
    if (!open_ || !bytes || !makeRoom(bytes->size() + kUnsentFrameBytes)) {
        return;
    }
    unsent_.push_back(std::move(*bytes));
    if (unsent_.size() == 1) {
        write();
    }
}

bool FrameConnection::makeRoom(std::size_t bytes) {
    const bool wasFull = unsentBytes_ > kMaxUnsentBytes;
    unsentBytes_ += bytes;
    const bool isFull = unsentBytes_ > kMaxUnsentBytes && !unsent_.empty();
    if (isFull && !wasFull) {
        boost::asio::post(socket_->get_executor(), [self = shared_from_this()] {
            if (self->open_) {
                self->malformed("it does not read what it is sent");
            }
        });
    }
    return !isFull;
}

void FrameConnection::write() {
    boost::asio::async_write(*socket_, boost::asio::buffer(unsent_.front()),
                             [self = shared_from_this()](boost::system::error_code error, std::size_t) {
                                 if (!self->open_ || error) {
                                     // A peer that cannot be written to is found by the read that is always under
                                     // way, after what it still sent: perhaps why it closed.
                                     return;
                                 }
                                 self->unsentBytes_ -= self->unsent_.front().size() + kUnsentFrameBytes;
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
