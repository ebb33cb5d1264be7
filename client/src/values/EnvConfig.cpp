#include <kxa/KXAEnvConfig.h>

#include <algorithm>
#include <utility>

#include "client/src/values/EnvRecord.h"
#include "wire/Protocol.h"

using kx::client::EnvRecord;

namespace {

namespace wire = kx::wire;

/// @return what the agent sent of it; nothing of a configuration that has nothing
wire::Configuration detailsOf(const EnvRecord* record) {
    wire::Configuration details;
    if (record != nullptr) {
        details.ParseFromString(record->details);  // it was a message when it was stored
    }
    return details;
}

template <typename T, typename V>
int fill(bool isThere, KXLOptionalProperty<T>& property, V&& value) {
    if (!isThere) {
        return -1;
    }
    property.set(std::forward<V>(value));
    return 0;
}

KXATemplate templateOf(const wire::Template& from) {
    return {from.name(), from.version()};
}

std::vector<KXATemplate> listOf(const wire::TemplateList& from) {
    std::vector<KXATemplate> templates;
    templates.reserve(static_cast<std::size_t>(from.templates_size()));
    for (const wire::Template& one : from.templates()) {
        templates.push_back(templateOf(one));
    }
    return templates;
}

std::vector<KXLIPAddress> listOf(const wire::AddressList& from) {
    std::vector<KXLIPAddress> addresses;
    addresses.reserve(static_cast<std::size_t>(from.addresses_size()));
    for (const wire::Address& address : from.addresses()) {
        addresses.emplace_back(address.address(), address.mask());
    }
    return addresses;
}

std::vector<KXLInet6Address> listOf(const wire::Inet6AddressList& from) {
    std::vector<KXLInet6Address> addresses;
    addresses.reserve(static_cast<std::size_t>(from.addresses_size()));
    for (const wire::Inet6Address& address : from.addresses()) {
        addresses.emplace_back(address.address(), address.prefix_length());
    }
    return addresses;
}

KXLGUID guidOf(const std::string& sixteenBytes) {
    KXLGUIDBase::Bytes bytes{};
    std::copy_n(sixteenBytes.begin(), std::min(sixteenBytes.size(), bytes.size()), bytes.begin());
    return KXLGUID(bytes);
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
    const auto details = detailsOf(record());
    return fill(details.has_hostname(), hostname, details.hostname());
}

int KXLEnvConfig::getDescription(KXLOptionalProperty<std::string>& description) const {
    const auto details = detailsOf(record());
    return fill(details.has_description(), description, details.description());
}

int KXLEnvConfig::getBaseSampleId(KXLOptionalProperty<KXLGUID>& id) const {
    const auto details = detailsOf(record());
    return fill(details.has_base_sample(), id, guidOf(details.base_sample()));
}

int KXLEnvConfig::getAddresses(KXLOptionalProperty<std::vector<KXLIPAddress>>& addresses) const {
    const auto details = detailsOf(record());
    return fill(details.has_addresses(), addresses, listOf(details.addresses()));
}

int KXLEnvConfig::getInet6Addresses(KXLOptionalProperty<std::vector<KXLInet6Address>>& addresses) const {
    const auto details = detailsOf(record());
    return fill(details.has_inet6_addresses(), addresses, listOf(details.inet6_addresses()));
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
    const auto details = detailsOf(record());
    return fill(details.has_os_template(), osTemplate, templateOf(details.os_template()));
}

int KXAEnvConfig::getTemplates(KXLOptionalProperty<std::vector<KXATemplate>>& templates) const {
    const auto details = detailsOf(record());
    return fill(details.has_templates(), templates, listOf(details.templates()));
}
