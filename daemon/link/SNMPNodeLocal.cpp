#include "link/SNMPNodeLocal.h"

#include "link/SNMPNodeLocalImpl.h"

SNMPNodeLocal* SNMPNodeLocal::s_instance = nullptr;
bool SNMPNodeLocal::s_deleted = false;

boost::intrusive_ptr<KXLEventGatePrototype> SNMPNodeLocal::s_eventGate;

SNMPNodeLocal::SNMPNodeLocal() : impl(std::make_unique<SNMPNodeLocalImpl>(s_eventGate)) {}

SNMPNodeLocal::~SNMPNodeLocal() = default;

SNMPNodeLocal* SNMPNodeLocal::instance() {
    if (s_instance == nullptr && !s_deleted) {
        s_instance = std::unique_ptr<SNMPNodeLocal>(new SNMPNodeLocal).release();
    }
    return s_instance;
}

void SNMPNodeLocal::destroy() {
    if (s_deleted) {
        return;
    }
    s_deleted = true;
    // s_instance stays until the end: a callback that the loop finishes meanwhile may still ask for it.
    const std::unique_ptr<SNMPNodeLocal> holder(s_instance);
    if (holder) {
        holder->impl->stop();
        holder->impl.reset();
    }
    s_instance = nullptr;
}

boost::intrusive_ptr<KXLAccessPointPrototype> SNMPNodeLocal::getAccessPoint() {
    return impl->getAccessPoint();
}

boost::intrusive_ptr<KXLEnvCache> SNMPNodeLocal::getEnvCache() {
    const auto accessPoint = getAccessPoint();
    return accessPoint ? accessPoint->getEnvCache() : nullptr;
}

KXLEID SNMPNodeLocal::getServerEID() {
    const auto accessPoint = getAccessPoint();
    return accessPoint ? accessPoint->getEID() : KXLEID::EID_INVALID;
}

ClassStats SNMPNodeLocal::getStats(const std::string& className) {
    return impl->getStats(className);
}

CounterRowsPtr SNMPNodeLocal::getCounterRows(const std::string& className) {
    return impl->counters().getRows(className);
}

bool SNMPNodeLocal::copyCounters(const std::string& className, const CounterRowsPtr& rows,
                                 const std::vector<std::uint32_t>& places, std::vector<CounterMap>& into) {
    return impl->counters().copyCounters(className, rows, places, into);
}

bool SNMPNodeLocal::isLoopWaitedFor() const {
    return impl->isLoopWaitedFor();
}

void SNMPNodeLocal::addReceiver(const boost::intrusive_ptr<KXLReceiver<KXLEvent>>& receiver) {
    impl->addReceiver(receiver);
}

void SNMPNodeLocal::dispatchEvent(const KXLEvent& event) {
    impl->dispatchEvent(event);
}
