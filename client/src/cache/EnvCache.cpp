#include <kxl/KXLEnvCache.h>

#include "client/src/cache/EnvStore.h"

KXLEnvCache::KXLEnvCache() : store_(std::make_unique<kx::client::EnvStore>()) {}
KXLEnvCache::~KXLEnvCache() = default;

KXLEnvCache::EnvValuesList KXLEnvCache::getEnvList() const {
    return EnvValuesList(store_->current());
}

KXLEnvCache::EnvPtr KXLEnvCache::getEnvCopy(const KXLEID& eid) const {
    const auto storage = store_->current();
    if (!storage) {
        return {};
    }
    const auto found = storage->index->positions.find(eid);
    return found == storage->index->positions.end() ? EnvPtr() : storage->environments[found->second];
}
