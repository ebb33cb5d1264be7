// What one connection still has to send: pieces of bytes in order, shared where others send the same.
//
// Does no I/O: pieces go in, addresses of unsent bytes come out, and the caller says how many of them have gone.
// Not thread-safe: belongs to one connection.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <deque>
#include <string>

#include "agent/inventory/FrameBody.h"

namespace kx::agent {

/// A queue of bytes.
class Outbox {
public:
    /// Bytes that a queued piece counts for besides its own: what holding it takes. Without it a peer that asks for
    /// small answers and reads none could make the queue many times its limit.
    static constexpr std::size_t kPieceBytes = 128;

    /// @brief Appends a frame.
    /// @param requestId see encodeHead()
    /// @param body shared with the queues of other connections; not null
    void push(std::uint64_t requestId, FrameBody body);

    /// @return unsent bytes with kPieceBytes for each piece
    std::size_t load() const { return unsentBytes_ + kPieceBytes * pieces_.size(); }

    bool empty() const { return pieces_.empty(); }

    /// @brief Points at the next unsent bytes.
    /// @param into filled from its start
    /// @param count elements of `into`
    /// @return how many elements were filled; valid until the next call of another operation
    std::size_t next(iovec* into, std::size_t count) const;

    /// @brief Forgets bytes that have been sent.
    /// @param bytes at most what next() pointed at
    void drop(std::size_t bytes);

    /// @brief Forgets everything.
    void clear();

private:
    std::deque<FrameBody> pieces_;
    std::size_t sentOfFirst_ = 0;
    std::size_t unsentBytes_ = 0;
};

}  // namespace kx::agent
