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
    const kx::client::EnvIndex& index = *storage->index;
    const auto listed = index.positions.find(eid);
    if (listed != index.positions.end()) {
        return storage->environments[listed->second];
    }
    const auto departed = index.departed.find(eid);
    return departed == index.departed.end() ? EnvPtr() : departed->second;
}
