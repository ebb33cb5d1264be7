#include "tables/VeTableData.h"

#include <kxa/KXAEnvConfig.h>

#include <utility>

#include "tables/ColumnValues.h"
#include "tables/UnknownTag.h"

namespace {

constexpr unsigned lastColumn = 9;

// The result is not looked at: without a number the preset is published, as 4294967295.
ColumnValue veidOf(const KXAEnvConfig& config) {
    int veid = -1;
    config.getVeid(veid);
    return numberColumn(ASN_UNSIGNED, veid);
}

// The results of the two getters are not looked at: what is not set is an empty text. A text ends at its first NUL
// byte, which no manager would show anyway.
ColumnValue hostnameOf(const KXAEnvConfig& config) {
    KXLOptionalProperty<std::string> hostname;
    config.getHostname(hostname);
    return textColumn(hostname.get().c_str());
}

ColumnValue descriptionOf(const KXAEnvConfig& config) {
    KXLOptionalProperty<std::string> description;
    config.getDescription(description);
    return textColumn(description.get().c_str());
}

// A version without a name says nothing and is never published by itself.
ColumnValue osTemplateOf(const KXAEnvConfig& config) {
    KXLOptionalProperty<KXATemplate> osTemplate;
    if (config.getOsTemplate(osTemplate) != 0) {
        return textColumn({});
    }
    const std::string& name = osTemplate.get().getName();
    const std::string& version = osTemplate.get().getVersion();
    return textColumn(name.empty() || version.empty() ? name : name + "/" + version);
}

// Unlike the texts, a missing identifier is published as the empty identifier, so that the column always parses.
ColumnValue baseSampleOf(const KXAEnvConfig& config) {
    KXLOptionalProperty<KXLGUID> id;
    return textColumn(config.getBaseSampleId(id) == 0 ? id.get().toString() : KXLEID().toString());
}

}  // namespace

VeTableData::VeTableData(ContainerWalk::Position begin, ContainerWalk::Position end)
    : walk_(std::move(begin), std::move(end)) {}

ColumnValue VeTableData::operator[](unsigned tag) {
    const KXLEnv* const environment = walk_.environment();
    if (environment == nullptr || tag > lastColumn) {
        return {};
    }
    const KXAEnvConfig config(environment->getConfig());
    switch (tag) {
        case 1:
            return veidOf(config);
        case 2:
            return textColumn(environment->getEID().toString());
        case 3:
            // A configuration without a core record cannot be: the pointer's own assertion ends the process.
            return textColumn(config.getCoreBasic()->getText());
        case 4:
            return hostnameOf(config);
        case 5:
            return descriptionOf(config);
        case 6:
            return osTemplateOf(config);
        case 7:
            return baseSampleOf(config);
        // The numbers are the agent's; they are passed on untranslated.
        case 8:
            return numberColumn(ASN_INTEGER, environment->getStatus()->state);
        case 9:
            return numberColumn(ASN_INTEGER, environment->getStatus()->transition);
        default:
            logUnknownTag(tag);
            return {};
    }
}
