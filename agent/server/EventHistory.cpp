#include "agent/server/EventHistory.h"

namespace kx::agent {

void EventHistory::add(const std::vector<FrameBody>& frames, WallTime sent) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(sent.time_since_epoch()).count();
    for (const FrameBody& frame : frames) {
        sent_.push_back({static_cast<std::uint64_t>(ms), frame});
        bytes_ += frame->size();
    }
    while (bytes_ > kMostBytes || sent_.size() > kMostFrames) {
        bytes_ -= sent_.front().frame->size();
        sent_.pop_front();
    }
}

std::vector<FrameBody> EventHistory::since(std::uint64_t sinceMs) const {
    std::vector<FrameBody> frames;
    for (const Sent& one : sent_) {
        if (one.ms >= sinceMs) {
            frames.push_back(one.frame);
        }
    }
    return frames;
}

}  // namespace kx::agent
