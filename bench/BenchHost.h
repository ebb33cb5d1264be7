// A made-up host for benchmarks.
#pragma once

#include <string>
#include <vector>

#include "tests/support/MakeEnv.h"

namespace kx::bench {

/// @brief `count` containers with everything a container usually has.
inline std::vector<wire::Environment> containers(int count) {
    std::vector<wire::Environment> all;
    for (int number = 1; number <= count; ++number) {
        wire::Environment env = test::wireEnv(number);
        env.set_state(2);
        auto& config = *env.mutable_configuration();
        config.set_name("ct" + std::to_string(number));
        config.set_veid(2000 + number);
        config.set_hostname("ct" + std::to_string(number) + ".example");
        config.set_description("a container that was made up");
        config.mutable_os_template()->set_name("debian");
        config.mutable_os_template()->set_version("12");
        auto& address = *config.mutable_addresses()->add_addresses();
        address.set_address("10.0.0.1");
        address.set_mask("255.0.0.0");
        all.push_back(std::move(env));
    }
    return all;
}

/// @brief The chunks in which an agent sends them, generation 1.
inline std::vector<wire::SnapshotChunk> chunksOf(const std::vector<wire::Environment>& environments) {
    std::vector<wire::SnapshotChunk> chunks(1);
    for (const wire::Environment& env : environments) {
        if (static_cast<std::size_t>(chunks.back().environments_size()) == wire::kMaxEnvironmentsPerChunk) {
            chunks.emplace_back();
            chunks.back().set_index(static_cast<std::uint32_t>(chunks.size() - 1));
        }
        *chunks.back().add_environments() = env;
    }
    for (wire::SnapshotChunk& chunk : chunks) {
        chunk.set_generation(1);
    }
    chunks.back().set_last(true);
    return chunks;
}

inline client::EnvFeed feedWith(const std::vector<wire::SnapshotChunk>& chunks) {
    client::EnvFeed feed;
    for (const wire::SnapshotChunk& chunk : chunks) {
        feed.take(chunk);
    }
    return feed;
}

}  // namespace kx::bench
