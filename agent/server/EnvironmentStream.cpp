#include "agent/server/EnvironmentStream.h"

#include <utility>

namespace kx::agent {

bool EnvironmentStream::ask(std::uint64_t requestId) {
    if (requests_.size() >= kMaxRequests) {
        return false;
    }
    requests_.push_back(requestId);
    pump();
    return true;
}

void EnvironmentStream::publish(const InventoryDeltas& deltas) {
    for (const FrameBody& delta : connection_.interests().departed ? deltas.withDeparted : deltas.plain) {
        later_.push_back(delta);
        laterBytes_ += delta->size();
    }
    // A client that does not take its snapshot is dropped by the limit of what is unsent, like any other.
    while (snapshot_ && laterBytes_ > connection_.limits().maxUnsentBytes) {
        sendChunk();
    }
    if (!snapshot_) {
        sendLater();
    }
}

void EnvironmentStream::pump() {
    while (connection_.isServed() && connection_.unsent() <= connection_.limits().maxUnsentEventBytes) {
        if (snapshot_) {
            sendChunk();
        } else if (!requests_.empty()) {
            beginNext();
        } else {
            return;
        }
    }
}

void EnvironmentStream::beginNext() {
    requestId_ = requests_.front();
    requests_.pop_front();
    snapshot_ = inventory_.snapshot(connection_.interests().departed);
    nextChunk_ = 0;
}

void EnvironmentStream::sendChunk() {
    connection_.send(requestId_, snapshot_->chunk(nextChunk_++));
    if (nextChunk_ == snapshot_->size()) {
        snapshot_.reset();
        sendLater();
    }
}

void EnvironmentStream::sendLater() {
    laterBytes_ = 0;
    for (const FrameBody& delta : std::exchange(later_, {})) {
        connection_.send(0, delta);
    }
}

}  // namespace kx::agent
