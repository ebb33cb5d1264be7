// What a well-behaved agent says, for scripts to be made of.
#pragma once

#include <string>
#include <vector>

#include "tests/support/MakeEnv.h"
#include "tests/support/ScriptedAgent.h"

namespace kx::test {

inline const std::string kServerEidBytes(wire::kEidBytes, '\x5e');

inline wire::Frame helloFrame() {
    wire::Frame frame;
    *frame.mutable_hello() = wire::makeHello("scripted agent");
    frame.mutable_hello()->set_server_eid(kServerEidBytes);
    return frame;
}

inline wire::Frame snapshotFrame(std::uint64_t generation, const std::vector<wire::Environment>& environments) {
    wire::Frame frame;
    frame.mutable_snapshot_chunk()->set_generation(generation);
    frame.mutable_snapshot_chunk()->set_last(true);
    for (const wire::Environment& environment : environments) {
        *frame.mutable_snapshot_chunk()->add_environments() = environment;
    }
    return frame;
}

inline wire::Frame deltaFrame(std::uint64_t generation, const std::vector<wire::Environment>& changed) {
    wire::Frame frame;
    frame.mutable_delta()->set_generation(generation);
    for (const wire::Environment& environment : changed) {
        *frame.mutable_delta()->add_changed() = environment;
    }
    return frame;
}

inline wire::Frame vocabularyFrame() {
    wire::Frame frame;
    auto* vocabulary = frame.mutable_vocabulary_set()->add_vocabularies();
    auto* version = vocabulary->add_parameters();
    version->set_id("kxversion");
    version->set_value("7.0.1-42");
    auto* counters = frame.mutable_vocabulary_set()->add_vocabularies();
    counters->set_name("KXABasicFunctionality");
    auto* category = counters->add_categories();
    category->set_name("counters_kx_net");
    category->add_parameters()->set_id("bytes_in");
    return frame;
}

/// @brief Shakes hands.
/// @param request receives what the client asks for first, which tells a link from an event connection
/// @return false when the client went away
inline bool shakeHands(PeerSocket& peer, wire::Frame& request) {
    return peer.read(request) && request.has_hello() && peer.send(helloFrame()) && peer.read(request);
}

/// @brief Sends a link its first data, once it has asked for its environments; generation 1.
/// @return false when the client went away
inline bool serveFirstData(PeerSocket& peer, const std::vector<wire::Environment>& environments) {
    wire::Frame frame;
    return peer.read(frame) && frame.has_vocabulary_request() && peer.send(snapshotFrame(1, environments)) &&
           peer.send(vocabularyFrame());
}

/// @brief Tells an event connection that it is subscribed.
/// @return false when the client went away
inline bool acceptSubscription(PeerSocket& peer, const wire::Frame& request) {
    wire::Frame answer;
    answer.set_request_id(request.request_id());
    answer.mutable_done();
    return peer.send(answer);
}

/// @brief Answers the pings of a link until it is closed.
inline void answerUntilClosed(PeerSocket& peer) {
    wire::Frame frame;
    while (peer.read(frame)) {
        if (frame.has_ping()) {
            frame.mutable_pong()->set_content_age_ms(1500);
            frame.mutable_pong()->set_silent_containers(2);
            peer.send(frame);
        }
    }
}

/// @brief Shakes hands and sends the first data; generation 1. An event connection is served to its end, without
/// events.
/// @return false when the client went away, or the connection was none of a link
inline bool serveUntilUp(PeerSocket& peer, const std::vector<wire::Environment>& environments) {
    wire::Frame request;
    if (!shakeHands(peer, request)) {
        return false;
    }
    if (request.has_event_subscribe()) {
        acceptSubscription(peer, request);
        peer.readUntilClosed();
        return false;
    }
    return request.has_snapshot_request() && serveFirstData(peer, environments);
}

inline wire::Frame eventFrame(const std::vector<wire::Event>& events) {
    wire::Frame frame;
    frame.mutable_event_message();
    for (const wire::Event& event : events) {
        *frame.mutable_event_message()->add_events() = event;
    }
    return frame;
}

inline wire::Event alertEvent(const std::string& eid, const std::string& text, int code = 1, std::int64_t value = 0) {
    wire::Event event;
    event.set_type("resource_alert");
    event.mutable_resource_alert()->set_eid(eid);
    event.mutable_resource_alert()->set_text(text);
    event.mutable_resource_alert()->set_code(code);
    event.mutable_resource_alert()->set_value(value);
    return event;
}

}  // namespace kx::test
