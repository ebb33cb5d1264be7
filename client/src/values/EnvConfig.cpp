#include <kxa/KXAEnvConfig.h>

#include "client/src/values/EnvRecord.h"

using kx::client::EnvRecord;

namespace {

template <typename T>
int fill(KXLOptionalProperty<T>& property, const std::optional<T>& value) {
    if (!value) {
        return -1;
    }
    property.set(*value);
    return 0;
}

template <typename T>
int fillFrom(const EnvRecord* record, std::optional<T> EnvRecord::*member, KXLOptionalProperty<T>& property) {
    return record == nullptr ? -1 : fill(property, record->*member);
}

}  // namespace

void kx::client::intrusive_ptr_add_ref(const EnvRecord* record) {
    intrusive_ptr_add_ref(static_cast<const KXLRefCounter*>(record));
}

void kx::client::intrusive_ptr_release(const EnvRecord* record) {
    intrusive_ptr_release(static_cast<const KXLRefCounter*>(record));
}

KXLEnvConfig::KXLEnvConfig(boost::intrusive_ptr<const EnvRecord> record) : record_(std::move(record)) {}
KXLEnvConfig::KXLEnvConfig(const KXLEnvConfig&) = default;
KXLEnvConfig& KXLEnvConfig::operator=(const KXLEnvConfig&) = default;
KXLEnvConfig::~KXLEnvConfig() = default;

const boost::shared_ptr<const KXLEnvCoreBasic>& KXLEnvConfig::getCoreBasic() const {
    static const boost::shared_ptr<const KXLEnvCoreBasic> none;
    return record_ ? record_->core : none;
}

int KXLEnvConfig::getHostname(KXLOptionalProperty<std::string>& hostname) const {
    return fillFrom(record(), &EnvRecord::hostname, hostname);
}

int KXLEnvConfig::getDescription(KXLOptionalProperty<std::string>& description) const {
    return fillFrom(record(), &EnvRecord::description, description);
}

int KXLEnvConfig::getBaseSampleId(KXLOptionalProperty<KXLGUID>& id) const {
    return fillFrom(record(), &EnvRecord::baseSample, id);
}

int KXLEnvConfig::getAddresses(KXLOptionalProperty<std::vector<KXLIPAddress>>& addresses) const {
    return fillFrom(record(), &EnvRecord::addresses, addresses);
}

int KXLEnvConfig::getInet6Addresses(KXLOptionalProperty<std::vector<KXLInet6Address>>& addresses) const {
    return fillFrom(record(), &EnvRecord::inet6Addresses, addresses);
}

KXAEnvConfig::KXAEnvConfig(const KXLEnvConfig& config) : KXLEnvConfig(config) {}

int KXAEnvConfig::getVeid(int& veid) const {
    if (record() == nullptr || !record()->veid) {
        return -1;
    }
    veid = *record()->veid;
    return 0;
}

int KXAEnvConfig::getOsTemplate(KXLOptionalProperty<KXATemplate>& osTemplate) const {
    return fillFrom(record(), &EnvRecord::osTemplate, osTemplate);
}

int KXAEnvConfig::getTemplates(KXLOptionalProperty<std::vector<KXATemplate>>& templates) const {
    return fillFrom(record(), &EnvRecord::templates, templates);
}
