#include "tables/VeAppTableData.h"

#include "mib/OidLayout.h"
#include "tables/ColumnValues.h"
#include "tables/UnknownTag.h"

namespace {

/// What an instance's name has room for (RFC 2578, section 3.5) behind the table, the entry, the column, the
/// container's number and the text's own length.
constexpr std::size_t maxNameBytes = MAX_OID_LEN - objectOidLength - 4;

bool hasNoInstance(const KXATemplate& application) {
    return application.getName().size() > maxNameBytes;
}

}  // namespace

std::vector<KXATemplate> VeAppSubListTraits::listOf(const KXLEnv* environment) {
    KXLOptionalProperty<std::vector<KXATemplate>> property;
    if (environment == nullptr || KXAEnvConfig(environment->getConfig()).getTemplates(property) != 0) {
        return {};
    }
    std::vector<KXATemplate> templates = property.get();
    // The library would cut the index off behind the container's number: a row that a walk shows under a name that no
    // get finds, and the same one for every such template.
    std::erase_if(templates, hasNoInstance);
    return templates;
}

bool VeAppSubListTraits::areEqual(const KXATemplate& one, const KXATemplate& other) {
    return one.getName().compare(other.getName()) == 0 && one.getVersion().compare(other.getVersion()) == 0;
}

VeAppTableData::VeAppTableData(std::int32_t veid, const KXATemplate& application)
    : veid_(veid), name_(application.getName()), version_(application.getVersion()) {}

ColumnValue VeAppTableData::operator[](unsigned tag) {
    switch (tag) {
        case 0:
            logUnknownTag(tag);
            return {};
        case 1:
            return textColumn(name_);
        case 2:
            return version_.empty() ? numberColumn(ASN_UNSIGNED, 0) : parsedColumn(ASN_UNSIGNED, version_);
        case 3:
            return numberColumn(ASN_UNSIGNED, veid_);
        default:
            return {};
    }
}
