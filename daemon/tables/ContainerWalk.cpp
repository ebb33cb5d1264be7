#include "tables/ContainerWalk.h"

#include <cstring>
#include <utility>

#include "link/SNMPNodeLocal.h"
#include "tables/ContainerType.h"

KXLEnvCache::EnvValuesList currentEnvironments() {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    if (link == nullptr) {
        return {};
    }
    const auto cache = link->getEnvCache();
    return cache ? cache->getEnvList() : KXLEnvCache::EnvValuesList();
}

ContainerWalk::ContainerWalk(Position begin, Position end) : current_(std::move(begin)), end_(std::move(end)) {
    skipOtherEnvironments();
}

void ContainerWalk::advance() {
    ++current_;
    skipOtherEnvironments();
}

const KXLEnv* ContainerWalk::environment() const {
    return atEnd() ? nullptr : (*current_).get();
}

// The list may hold empty entries: they have no type, so they are no containers. The pointers are looked at where
// they are, since counting a reference for each of ten thousand entries is what a walk can least afford.
void ContainerWalk::skipOtherEnvironments() {
    while (!atEnd()) {
        const KXLEnv* const candidate = (*current_).get();
        if (candidate != nullptr && std::strcmp(candidate->getType().c_str(), containerType) == 0) {
            return;
        }
        ++current_;
    }
}
