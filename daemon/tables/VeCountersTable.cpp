#include "tables/VeCountersTable.h"

#include "link/VocabularyAccess.h"

std::vector<std::string> counterNames(const std::string& className) {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    return getCategoryParameterIds(className, link == nullptr ? nullptr : link->getAccessPoint());
}
