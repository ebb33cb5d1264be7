#include "agent/server/Outbox.h"

#include <algorithm>

namespace kx::agent {

void Outbox::push(std::uint64_t requestId, FrameBody body) {
    auto head = std::make_shared<const std::string>(encodeHead(requestId, body->size()));
    unsentBytes_ += head->size() + body->size();
    pieces_.push_back(std::move(head));
    if (!body->empty()) {
        pieces_.push_back(std::move(body));
    }
}

std::size_t Outbox::next(iovec* into, std::size_t count) const {
    const std::size_t filled = std::min(count, pieces_.size());
    std::size_t skip = sentOfFirst_;
    for (std::size_t i = 0; i < filled; ++i) {
        const std::string& piece = *pieces_[i];
        // The interface is one for reading and writing; sending does not write to it.
        into[i].iov_base = const_cast<char*>(piece.data() + skip);
        into[i].iov_len = piece.size() - skip;
        skip = 0;
    }
    return filled;
}

void Outbox::drop(std::size_t bytes) {
    unsentBytes_ -= bytes;
    while (bytes > 0) {
        const std::size_t ofFirst = pieces_.front()->size() - sentOfFirst_;
        if (bytes < ofFirst) {
            sentOfFirst_ += bytes;
            return;
        }
        bytes -= ofFirst;
        sentOfFirst_ = 0;
        pieces_.pop_front();
    }
}

void Outbox::clear() {
    pieces_.clear();
    sentOfFirst_ = 0;
    unsentBytes_ = 0;
}

}  // namespace kx::agent
