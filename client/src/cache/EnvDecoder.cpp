#include "client/src/cache/EnvDecoder.h"

#include <algorithm>
#include <boost/make_shared.hpp>

#include "client/src/values/EnvRecord.h"

namespace kx::client {

namespace {

bool decodeGuid(const std::string& bytes, KXLGUIDBase::Bytes& into) {
    if (bytes.size() != KXLGUIDBase::size) {
        return false;
    }
    std::copy(bytes.begin(), bytes.end(), into.begin());
    return true;
}

KXATemplate decodeTemplate(const wire::Template& from) {
    return {from.name(), from.version()};
}

std::vector<KXLIPAddress> decodeAddresses(const wire::AddressList& from) {
    std::vector<KXLIPAddress> addresses;
    addresses.reserve(static_cast<std::size_t>(from.addresses_size()));
    for (const wire::Address& address : from.addresses()) {
        addresses.emplace_back(address.address(), address.mask());
    }
    return addresses;
}

std::vector<KXLInet6Address> decodeInet6Addresses(const wire::Inet6AddressList& from) {
    std::vector<KXLInet6Address> addresses;
    addresses.reserve(static_cast<std::size_t>(from.addresses_size()));
    for (const wire::Inet6Address& address : from.addresses()) {
        addresses.emplace_back(address.address(), address.prefix_length());
    }
    return addresses;
}

std::vector<KXATemplate> decodeTemplates(const wire::TemplateList& from) {
    std::vector<KXATemplate> templates;
    templates.reserve(static_cast<std::size_t>(from.templates_size()));
    for (const wire::Template& one : from.templates()) {
        templates.push_back(decodeTemplate(one));
    }
    return templates;
}

void decodeTexts(const wire::Configuration& from, EnvRecord& record) {
    record.core = boost::make_shared<const KXLEnvCoreBasic>(from.name());
    if (from.has_hostname()) {
        record.hostname = from.hostname();
    }
    if (from.has_description()) {
        record.description = from.description();
    }
}

bool decodeConfiguration(const wire::Configuration& from, EnvRecord& record) {
    decodeTexts(from, record);
    if (from.has_veid()) {
        record.veid = from.veid();
    }
    if (from.has_os_template()) {
        record.osTemplate = decodeTemplate(from.os_template());
    }
    if (from.has_addresses()) {
        record.addresses = decodeAddresses(from.addresses());
    }
    if (from.has_inet6_addresses()) {
        record.inet6Addresses = decodeInet6Addresses(from.inet6_addresses());
    }
    if (from.has_templates()) {
        record.templates = decodeTemplates(from.templates());
    }
    if (!from.has_base_sample()) {
        return true;
    }
    KXLGUIDBase::Bytes bytes{};
    if (!decodeGuid(from.base_sample(), bytes)) {
        return false;
    }
    record.baseSample = KXLGUID(bytes);
    return true;
}

ParameterData decodeParameter(const wire::Parameter& from) {
    ParameterData parameter;
    if (from.has_id()) {
        parameter.id = from.id();
    }
    if (from.has_value()) {
        parameter.value = from.value();
    }
    parameter.attributes.insert(from.attributes().begin(), from.attributes().end());
    return parameter;
}

template <typename Parameters>
std::vector<ParameterData> decodeParameters(const Parameters& from) {
    std::vector<ParameterData> parameters;
    parameters.reserve(static_cast<std::size_t>(from.size()));
    for (const wire::Parameter& parameter : from) {
        parameters.push_back(decodeParameter(parameter));
    }
    return parameters;
}

}  // namespace

bool decodeEid(const std::string& bytes, KXLEID& eid) {
    KXLGUIDBase::Bytes raw{};
    if (!decodeGuid(bytes, raw)) {
        return false;
    }
    eid = KXLEID(raw);
    return true;
}

KXLEnvCache::EnvPtr decodeEnvironment(const wire::Environment& from, std::string& reason) {
    const boost::intrusive_ptr<EnvRecord> record(new EnvRecord);
    if (!decodeEid(from.eid(), record->eid)) {
        reason = "an environment's identifier is not 16 bytes long";
        return {};
    }
    record->type = from.type();
    record->status = {from.state(), from.transition()};
    if (!decodeConfiguration(from.configuration(), *record)) {
        reason = "a base sample's identifier is not 16 bytes long";
        return {};
    }
    return boost::make_shared<const KXLEnv>(record);
}

boost::shared_ptr<const VocabularyData> decodeVocabulary(const wire::Vocabulary& from) {
    auto data = boost::make_shared<VocabularyData>();
    data->name = from.name();
    data->parameters = decodeParameters(from.parameters());
    for (const wire::Category& category : from.categories()) {
        data->categories.push_back({category.name(), decodeParameters(category.parameters())});
    }
    return data;
}

}  // namespace kx::client
