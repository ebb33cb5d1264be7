// A connected socket that speaks frames.
//
// Thread promise: the loop thread only. A listener that is gone is not called; nor is any after close().
#pragma once

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "client/src/transport/Transport.h"
#include "wire/Framing.h"

namespace kx::client {

class FrameConnection;

/// @brief Receives what a connection reads. Loop thread.
class FrameListener {
public:
    virtual ~FrameListener() = default;
    /// @param connection the one that read it: a listener that has moved on to another ignores it
    virtual void frameReceived(const FrameConnection& connection, const wire::Frame& frame) = 0;
    /// @brief Offered each frame before it is decoded, for listeners that read a large one in parts.
    /// @param payload valid during the call
    /// @return whether the frame is taken; if not, it is decoded and passed to frameReceived
    virtual bool payloadReceived(const FrameConnection&, std::string_view) { return false; }
    /// The peer closed the connection, between frames or within one.
    virtual void connectionEnded(const FrameConnection& connection) = 0;
    /// @param reason what the peer sent that is no frame, in words for a log line
    virtual void connectionMalformed(const FrameConnection& connection, const std::string& reason) = 0;
};

/// @brief Reads and writes frames. Calls its listener once at the end, unless it was closed first.
class FrameConnection : public std::enable_shared_from_this<FrameConnection> {
public:
    FrameConnection(std::shared_ptr<StreamSocket> socket, std::weak_ptr<FrameListener> listener);

    /// @brief Starts reading.
    void start();

    /// @brief Stops reading, and holds back the frames that have been read but not passed on.
    void pause() { paused_ = true; }
    /// @brief Passes on what pause() held back and reads on. Not to be called by a listener's callback.
    void resume();

    /// @brief Queues a frame. A failure to write shows as the end of the connection, and so does a peer that does not
    /// read: its listener is called later, never in here.
    void send(const wire::Frame& frame);

    /// @brief Closes the socket. The listener is not called any more.
    void close();

private:
    void read();
    void readOn();
    void received(boost::system::error_code error, std::size_t size);
    void handleFrames();
    bool handlePayload(std::string_view payload);
    void write();
    bool makeRoom(std::size_t bytes);
    void returnMemory();
    void end();
    void malformed(const std::string& reason);

    std::shared_ptr<StreamSocket> socket_;
    std::weak_ptr<FrameListener> listener_;
    bool open_ = true;
    bool paused_ = false;
    bool reading_ = false;  ///< a read is under way
    wire::FrameReader reader_;
    std::array<char, std::size_t{64} * 1024> buffer_{};
    std::deque<std::string> unsent_;  ///< the first one is being written
    std::size_t unsentBytes_ = 0;
    std::size_t handledBytes_ = 0;  ///< since memory was returned
};

}  // namespace kx::client
