#include "link/VocabularyAccess.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/library/snmp_logging.h>
// clang-format on

namespace {

void readParameter(CategoryInfo& into, const KXLVocIterator& parameter) {
    std::string id;
    if (parameter.getID(id) != 0) {
        return;
    }
    into.parameterIds.push_back(id);
    // The result is not looked at: without the attribute the type stays what it is, 0 for a new id.
    parameter.getAttribute("counter_type", into.counterTypes[id]);
}

}  // namespace

int readVocabularyCategory(CategoryInfo& into, const std::string& category,
                           const boost::shared_ptr<KXLVocMap>& vocabulary) {
    if (!vocabulary) {
        return 1;
    }
    const auto parameter = vocabulary->readCategory(category);
    if (!parameter) {
        // Always "init", whoever asks: operators know the line by it.
        snmp_log(LOG_ERR, "%s: _vocabulary->readCategory failed\n", "init");
        return 1;
    }
    // A counter class without counters is as good as none.
    if (parameter->firstParameter() != 0) {
        return 1;
    }
    do {
        readParameter(into, *parameter);
    } while (parameter->nextParameter() == 0);
    return 0;
}

std::vector<std::string> getCategoryParameterIds(const std::string& category,
                                                 const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint) {
    CategoryInfo info;
    const auto vocabulary =
        accessPoint ? accessPoint->getVocabulary(accessPoint->getEID(), countersVocabulary) : nullptr;
    // The result is not looked at: what could not be read is not in the list.
    readVocabularyCategory(info, category, vocabulary);
    return info.parameterIds;
}
