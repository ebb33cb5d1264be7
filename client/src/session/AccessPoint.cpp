#include <kxl/KXLAccessPointPrototype.h>

#include "client/src/session/Session.h"
#include "client/src/session/SessionDirectory.h"

boost::intrusive_ptr<KXLAccessPointPrototype> KXLAccessPointPrototype::createInstance(
    boost::intrusive_ptr<KXLAccessPrototype> access, boost::intrusive_ptr<KXLEnvCache> cache) {
    if (!cache) {
        cache = access->getCache();
    }
    if (!cache) {
        cache = new KXLEnvCache;
    }
    return new KXLAccessPointPrototype(std::move(access), std::move(cache));
}

KXLAccessPointPrototype::KXLAccessPointPrototype(boost::intrusive_ptr<KXLAccessPrototype> access,
                                                 boost::intrusive_ptr<KXLEnvCache> cache)
    : access_(std::move(access)),
      cache_(std::move(cache)),
      session_(kx::client::Session::create(access_->getEventLoop()->loop(), cache_)) {
    if (const auto directory = access_->directory()) {
        directory->add(session_);
    }
}

KXLAccessPointPrototype::~KXLAccessPointPrototype() {
    session_->shutDown();
}

boost::intrusive_ptr<KXLAccessPrototype> KXLAccessPointPrototype::getAccess() const {
    return access_;
}

KXLEID KXLAccessPointPrototype::getEID() const {
    return session_->serverEid();
}

// NOLINTBEGIN(performance-unnecessary-value-param): the interface says so
int KXLAccessPointPrototype::initializeSync(const KXLConnectionInfo& info,
                                            boost::intrusive_ptr<KXLRequestHandlerPrototype> handler, int) {
    return session_->initialize(info, handler);
}
// NOLINTEND(performance-unnecessary-value-param)

int KXLAccessPointPrototype::raiseAlertSync(const KXLResourceAlertData& alert, const std::int32_t* veid,
                                            std::string& refusal) {
    kx::wire::Frame request;
    kx::wire::AlertRaise& raise = *request.mutable_alert_raise();
    if (veid != nullptr) {
        raise.set_veid(*veid);
    } else {
        const auto& bytes = alert.eid.bytes();
        raise.set_eid(std::string(bytes.begin(), bytes.end()));
    }
    raise.set_code(alert.alertCode);
    raise.set_text(alert.alertText);
    raise.set_value(alert.alertValue);
    kx::wire::Frame answer;
    const int code = session_->call(std::move(request), answer);
    if (code != 0 || answer.has_done()) {
        return code;
    }
    refusal = answer.has_refusal() ? answer.refusal().text() : std::string("the agent answered with something else");
    return KXL_ERROR_REFUSED;
}

int KXLAccessPointPrototype::pingSync() {
    KXLFreshness ignored;
    return pingSync(ignored);
}

int KXLAccessPointPrototype::pingSync(KXLFreshness& freshness) {
    kx::wire::Frame request;
    request.mutable_ping();
    kx::wire::Frame answer;
    const int code = session_->call(std::move(request), answer);
    freshness = {};
    if (answer.pong().has_content_age_ms()) {
        freshness.ageMs = static_cast<std::int64_t>(answer.pong().content_age_ms());
    }
    freshness.silentContainers = answer.pong().silent_containers();
    return code;
}

boost::intrusive_ptr<KXLEnvCache> KXLAccessPointPrototype::getEnvCache() const {
    return cache_;
}

boost::shared_ptr<KXLVocMap> KXLAccessPointPrototype::getVocabulary(const KXLEID& eid) const {
    return session_->isUp() ? getVocabulary(eid, std::string()) : nullptr;
}

boost::shared_ptr<KXLVocMap> KXLAccessPointPrototype::getVocabulary(const KXLEID& eid, const std::string& name) const {
    return eid == session_->serverEid() ? session_->vocabularies().find(name) : nullptr;
}
