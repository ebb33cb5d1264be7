#include <kxl/KXLMonitorAgent.h>

#include "client/src/session/SessionDirectory.h"

namespace {

std::shared_ptr<kx::client::Session> sessionOf(const KXLEID& node,
                                               const boost::intrusive_ptr<KXLAccessProviderPrototype>& provider) {
    const auto access = provider ? provider->getAccess() : nullptr;
    const auto directory = access ? access->directory() : nullptr;
    return directory ? directory->find(node) : nullptr;
}

kx::client::CounterRequest requestOf(const std::set<KXLEID>& eids, const KXLPerfMonClassList& classes) {
    kx::client::CounterRequest request;
    for (const auto& [name, counters] : classes) {
        request.classes.insert(name);
    }
    request.eids = eids;
    return request;
}

}  // namespace

int KXLMonitorAgent::startMonitoring(const std::set<KXLEID>& eids,
                                     const boost::shared_ptr<KXLPerfMonClassList>& classes, int periodSeconds,
                                     std::set<KXLEID>& output, int) {
    output.clear();
    const auto session = sessionOf(node_, provider_);
    const boost::intrusive_ptr<Handler> handler(dynamic_cast<Handler*>(request_.getContext()->getHandler().get()));
    if (!session) {
        return KXL_ERROR_DISCONNECT;
    }
    if (!handler || request_.getContext()->isSynchronous() || periodSeconds <= 0) {
        return KXL_ERROR_REFUSED;
    }
    return session->startMonitor(requestOf(eids, *classes), periodSeconds, handler);
}

int KXLPerfMonAgent::query(std::vector<KXLMonitorData>& output, const std::set<KXLEID>& eids,
                           const boost::shared_ptr<KXLPerfMonClassList>& classes) {
    const auto session = sessionOf(node_, provider_);
    return session ? session->queryCounters(requestOf(eids, *classes), output) : static_cast<int>(KXL_ERROR_DISCONNECT);
}
