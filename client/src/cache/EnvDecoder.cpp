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

bool decodeConfiguration(const wire::Configuration& from, EnvRecord& record) {
    KXLGUIDBase::Bytes ignored{};
    if (from.has_base_sample() && !decodeGuid(from.base_sample(), ignored)) {
        return false;
    }
    record.core = boost::make_shared<const KXLEnvCoreBasic>(from.name());
    if (from.has_veid()) {
        record.veid = from.veid();
    }
    wire::Configuration details = from;
    details.clear_name();
    record.details = details.SerializeAsString();
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
