#include "ctl/events/ContainerNames.h"

#include <utility>

#include <kxa/KXAEnvConfig.h>

namespace kx::ctl {
namespace {

ContainerName nameOf(const KXLEnv& environment) {
    ContainerName found;
    found.eid = environment.getEID();
    const KXAEnvConfig config(environment.getConfig());
    int veid = 0;
    if (config.getVeid(veid) == 0) {
        found.veid = veid;
    }
    if (const auto& core = config.getCoreBasic()) {
        found.name = core->getText();
    }
    return found;
}

}  // namespace

ContainerNames::ContainerNames(boost::intrusive_ptr<KXLEnvCache> cache, std::function<KXLEID()> host)
    : cache_(std::move(cache)), host_(std::move(host)) {
    learnAll();
}

void ContainerNames::learnAll() {
    seen_.clear();
    for (const auto& environment : cache_->getEnvList()) {
        if (environment) {
            seen_[environment->getEID()] = nameOf(*environment);
        }
    }
}

bool ContainerNames::hasLastAddedOf(const std::vector<KXLEvent>& events) const {
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        const auto* change = dynamic_cast<const KXLEnvironmentChangeData*>(event->getData().get());
        if (change != nullptr && change->kind == KXLEnvironmentChangeData::Kind::Added) {
            return cache_->getEnvCopy(change->eid) != nullptr;
        }
    }
    return true;
}

std::optional<ContainerName> ContainerNames::of(const KXLEvent& event) {
    if (const auto* alert = dynamic_cast<const KXLResourceAlertData*>(event.getData().get())) {
        return find(alert->eid);
    }
    if (const auto* change = dynamic_cast<const KXLEnvironmentChangeData*>(event.getData().get())) {
        return ofChange(*change);
    }
    return std::nullopt;
}

ContainerName ContainerNames::find(const KXLEID& eid) const {
    ContainerName found;
    found.eid = eid;
    if (const auto environment = cache_->getEnvCopy(eid)) {
        found = nameOf(*environment);
    } else if (const auto seen = seen_.find(eid); seen != seen_.end()) {
        found = seen->second;
    }
    found.isHost = eid == host_();
    return found;
}

ContainerName ContainerNames::ofChange(const KXLEnvironmentChangeData& change) {
    ContainerName found = find(change.eid);
    found.name = change.name;  // as it was then; the cache may be further already
    if (change.kind == KXLEnvironmentChangeData::Kind::Removed) {
        seen_.erase(change.eid);
    } else {
        seen_[change.eid] = found;
    }
    return found;
}

}  // namespace kx::ctl
