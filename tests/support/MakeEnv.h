// Environments and caches for tests, made the way the library makes them from what an agent sends.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <kxl/KXLEnvCache.h>

#include "client/src/cache/EnvDecoder.h"
#include "client/src/cache/EnvFeed.h"
#include "client/src/cache/EnvStore.h"

namespace kx::test {

/// @brief A wire environment with an identifier made from a number, and a container's type.
inline wire::Environment wireEnv(int number, const std::string& type = "lumetra") {
    wire::Environment env;
    std::string eid(wire::kEidBytes, '\0');
    for (std::size_t i = 0; i < sizeof number; ++i) {
        eid[wire::kEidBytes - 1 - i] = static_cast<char>(static_cast<unsigned>(number) >> (8 * i));
    }
    env.set_eid(eid);
    env.set_type(type);
    env.mutable_configuration();
    return env;
}

inline KXLEnvCache::EnvPtr makeEnv(const wire::Environment& from) {
    std::string reason;
    auto env = client::decodeEnvironment(from, reason);
    if (!env) {
        throw std::invalid_argument(reason);
    }
    return env;
}

/// @brief A cache that holds these environments in this order, as after a snapshot.
inline boost::intrusive_ptr<KXLEnvCache> makeCache(const std::vector<wire::Environment>& environments) {
    client::EnvFeed feed;
    wire::SnapshotChunk chunk;
    chunk.set_generation(1);
    chunk.set_last(true);
    for (const wire::Environment& env : environments) {
        *chunk.add_environments() = env;
    }
    if (feed.take(chunk) != client::EnvFeed::Outcome::Updated) {
        throw std::invalid_argument(feed.reason());
    }
    boost::intrusive_ptr<KXLEnvCache> cache(new KXLEnvCache);
    cache->store().publish(feed.current());
    return cache;
}

}  // namespace kx::test
