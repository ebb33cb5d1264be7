// The published list of environments behind KXLEnvCache.
//
// Thread promise: any thread may read; the session publishes from the loop thread.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstring>
#include <unordered_map>

#include <kxl/KXLEnvCache.h>

#include "client/src/cache/Guarded.h"

namespace kx::client {

/// Identifiers are random enough as they are: any eight of their bytes make a hash.
struct GuidHash {
    std::size_t operator()(const KXLGUIDBase& guid) const {
        std::size_t hash = 0;
        std::memcpy(&hash, guid.bytes().data() + KXLGUIDBase::size - sizeof hash, sizeof hash);
        std::size_t first = 0;
        std::memcpy(&first, guid.bytes().data(), sizeof first);
        return hash ^ first;
    }
};

/// @brief What is found by its identifier; immutable, shared by lists whose membership is the same.
class EnvIndex {
public:
    std::unordered_map<KXLEID, std::size_t, GuidHash> positions;         ///< in the list
    std::unordered_map<KXLEID, KXLEnvCache::EnvPtr, GuidHash> departed;  ///< gone, but alerts about them are under way
};

using EnvStorage = KXLEnvCache::Storage;
using EnvStoragePtr = boost::intrusive_ptr<const EnvStorage>;

/// @brief Holds the current storage.
class EnvStore {
public:
    /// @return null before the first snapshot
    EnvStoragePtr current() const { return current_.load(); }
    void publish(EnvStoragePtr storage) { current_.store(std::move(storage)); }

private:
    Guarded<EnvStoragePtr> current_;
};

}  // namespace kx::client
