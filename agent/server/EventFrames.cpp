#include "agent/server/EventFrames.h"

#include <algorithm>

#include "wire/Protocol.h"

namespace kx::agent {
namespace {

/// Tags, lengths and numbers of an event: below this.
constexpr std::size_t kFixedBytes = 128;

std::uint64_t millisecondsOf(WallTime time) {
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    return static_cast<std::uint64_t>(std::max<std::int64_t>(sinceEpoch, 0));
}

/// Fills frames, beginning a new one whenever one is full.
class EventWriter {
public:
    /// @param sequence not 0: everything goes into one message of this number
    explicit EventWriter(std::uint64_t sequence = 0) : sequence_(sequence) {}

    /// @param textBytes of the texts that will be in the event
    wire::Event& add(std::string_view type, WallTime time, std::size_t textBytes) {
        if (sequence_ == 0 && bytes_ + textBytes + kFixedBytes > kEventFrameBytes) {
            flush();
        }
        bytes_ += textBytes + kFixedBytes;
        wire::Event& event = *frame_.mutable_event_message()->add_events();
        event.set_type(std::string(type));
        event.set_time_ms(millisecondsOf(time));
        return event;
    }

    std::vector<FrameBody> finish() {
        flush();
        return std::move(bodies_);
    }

private:
    void flush() {
        if (frame_.has_event_message()) {
            frame_.mutable_event_message()->set_sequence(sequence_);
            bodies_.push_back(encodeBody(frame_));
            frame_.Clear();
            bytes_ = 0;
        }
    }

    const std::uint64_t sequence_;
    wire::Frame frame_;
    std::size_t bytes_ = 0;
    std::vector<FrameBody> bodies_;
};

wire::EnvironmentChangeKind toWire(ChangeKind kind) {
    switch (kind) {
        case ChangeKind::Added:
            return wire::CHANGE_ADDED;
        case ChangeKind::Modified:
            return wire::CHANGE_MODIFIED;
        case ChangeKind::Removed:
            return wire::CHANGE_REMOVED;
    }
    return wire::CHANGE_UNSPECIFIED;
}

}  // namespace

std::vector<FrameBody> encodeEvents(const std::vector<EnvironmentChange>& changes, WallTime time) {
    EventWriter writer;
    for (const EnvironmentChange& change : changes) {
        wire::Event& event = writer.add(wire::kEventTypeEnvironmentChange, time, change.name.size());
        wire::EnvironmentChange& into = *event.mutable_environment_change();
        into.set_eid(change.eid.toWire());
        into.set_kind(toWire(change.kind));
        into.set_name(change.name);
        into.set_state(change.state);
        into.set_transition(change.transition);
    }
    return writer.finish();
}

std::vector<FrameBody> encodeEvents(const std::vector<DatedAlert>& alerts, std::uint64_t sequence) {
    EventWriter writer(sequence);
    for (const DatedAlert& alert : alerts) {
        std::string text = textOf(alert);
        wire::Event& event = writer.add(wire::kEventTypeResourceAlert, alert.happened, text.size());
        wire::ResourceAlert& into = *event.mutable_resource_alert();
        into.set_eid(alert.signal.about.toWire());
        into.set_code(alert.signal.code);
        into.set_text(std::move(text));
        into.set_value(alert.signal.value);
    }
    return writer.finish();
}

}  // namespace kx::agent
