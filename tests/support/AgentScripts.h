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

/// @brief Shakes hands and sends the first data; generation 1.
/// @return false when the client went away
inline bool serveUntilUp(PeerSocket& peer, const std::vector<wire::Environment>& environments) {
    wire::Frame frame;
    return peer.read(frame) && frame.has_hello() && peer.send(helloFrame()) && peer.read(frame) &&
           frame.has_snapshot_request() && peer.read(frame) && frame.has_vocabulary_request() &&
           peer.send(snapshotFrame(1, environments)) && peer.send(vocabularyFrame());
}

}  // namespace kx::test
