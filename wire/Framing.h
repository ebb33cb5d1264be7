// Framing of the agent's socket: a 4-byte big-endian length, then that many bytes of one protobuf message.
//
// Does no I/O: bytes go in, frames or "needs N more" come out. That keeps it the same on both sides of the
// socket and lets a fuzzer drive it directly. Not thread-safe: one reader belongs to one connection.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "kxwire.pb.h"

namespace kx::wire {

/// Bytes of the length in front of every frame.
inline constexpr std::size_t kHeaderBytes = 4;

/// The longest frame either side may send, without its header. A snapshot chunk of 1,000 environments
/// with 4,000-byte names stays well below it, and a peer cannot make the reader hold more.
inline constexpr std::size_t kMaxFrameBytes = std::size_t{16} * 1024 * 1024;

/// Cuts a byte stream into frames.
class FrameReader {
public:
    enum class Status {
        Frame,     ///< a whole frame is in `payload`
        NeedMore,  ///< at least `bytes` more bytes must be appended first
        TooLarge,  ///< the peer announced `bytes` bytes, over the limit; the reader is unusable from here
    };

    struct Result {
        Status status;
        std::size_t bytes;         ///< NeedMore: how many are missing; TooLarge: how many were announced
        std::string_view payload;  ///< Frame: the message; valid until the next append() or next()
    };

    /// @param maxFrameBytes longest payload accepted, 0..kMaxFrameBytes
    explicit FrameReader(std::size_t maxFrameBytes = kMaxFrameBytes) : maxFrameBytes_(maxFrameBytes) {}

    /// @brief Hands received bytes to the reader. Memory grows with what was received, never with what a
    /// length merely announces.
    void append(std::string_view bytes);

    /// @brief Takes the next frame out, if it is complete.
    Result next();

    /// @return bytes received and not yet taken out as frames
    std::size_t buffered() const { return buffer_.size() - consumed_; }

private:
    void dropConsumed();

    std::size_t maxFrameBytes_;
    std::string buffer_;
    std::size_t consumed_ = 0;
};

/// @brief Serialises a frame with its length in front.
/// @return the bytes to send; nothing when the frame exceeds kMaxFrameBytes
std::optional<std::string> encodeFrame(const Frame& frame);

/// @brief Parses the payload of a frame.
/// @return false when the bytes are not a Frame message
bool decodeFrame(std::string_view payload, Frame& frame);

}  // namespace kx::wire
