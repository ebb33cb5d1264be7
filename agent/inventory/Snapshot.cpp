#include "agent/inventory/Snapshot.h"

#include "agent/inventory/WireEncoding.h"
#include "wire/Protocol.h"

namespace kx::agent {

Snapshot::Snapshot(std::uint64_t generation, const std::vector<Environment>& environments,
                   const std::vector<Environment>& departed)
    : generation_(generation), present_(environments.size()) {
    list_.reserve(environments.size() + departed.size());
    for (const auto* part : {&environments, &departed}) {
        for (const Environment& environment : *part) {
            list_.push_back(&environment);
        }
    }
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < list_.size(); ++i) {
        const std::size_t more = wireBytesAtMost(*list_[i]);
        const bool full = !chunks_.empty() &&
                          (bytes + more > kChunkBytes || i - chunks_.back().first == wire::kMaxEnvironmentsPerChunk);
        if (chunks_.empty() || full) {
            chunks_.push_back({i, i, {}, {}});
            bytes = 0;
        }
        chunks_.back().end = i + 1;
        bytes += more;
    }
}

FrameBody Snapshot::chunk(std::size_t number) {
    Chunk& chunk = chunks_[number];
    FrameBody body = chunk.kept ? chunk.kept : chunk.sent.lock();
    if (!body) {
        body = encode(number);
        chunk.sent = body;
    }
    return body;
}

void Snapshot::complete() {
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        chunks_[i].kept = chunk(i);
    }
}

std::vector<FrameBody> Snapshot::all() {
    std::vector<FrameBody> bodies;
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        bodies.push_back(chunk(i));
    }
    return bodies;
}

FrameBody Snapshot::encode(std::size_t number) const {
    wire::Frame frame;
    wire::SnapshotChunk& chunk = *frame.mutable_snapshot_chunk();
    chunk.set_generation(generation_);
    chunk.set_index(static_cast<std::uint32_t>(number));
    chunk.set_last(number + 1 == chunks_.size());
    for (std::size_t i = chunks_[number].first; i < chunks_[number].end; ++i) {
        wire::Environment& environment = *chunk.add_environments();
        toWire(*list_[i], environment);
        environment.set_departed(i >= present_);
    }
    return encodeBody(frame);
}

}  // namespace kx::agent
