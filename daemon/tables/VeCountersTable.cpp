#include "tables/VeCountersTable.h"

#include <map>

#include "link/VocabularyAccess.h"

namespace {

/// The names that a vocabulary has for a class. Holding it keeps its address from being used for another one.
struct KnownNames {
    boost::shared_ptr<KXLVocMap> vocabulary;
    std::vector<std::string> names;
};

}  // namespace

// An answer of one column would otherwise spend a good part of its time on reading all names of the class.
const std::vector<std::string>& counterNames(const std::string& className) {
    static std::map<std::string, KnownNames> classes;
    KnownNames& known = classes[className];
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    const auto accessPoint = link == nullptr ? nullptr : link->getAccessPoint();
    auto vocabulary = accessPoint ? accessPoint->getVocabulary(accessPoint->getEID(), countersVocabulary) : nullptr;
    // A class that could not be read is read again, which logs it again.
    if (!vocabulary || vocabulary != known.vocabulary || known.names.empty()) {
        known.names = getCategoryParameterIds(className, accessPoint);
        known.vocabulary = std::move(vocabulary);
    }
    return known.names;
}

CounterRowsPtr counterRows(const std::string& className) {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    if (link == nullptr) {
        return nullptr;
    }
    CounterRowsPtr rows = link->getCounterRows(className);
    // A class that is read for the first time is subscribed to and queried by this.
    if (!rows && !link->getStats(className).empty()) {
        rows = link->getCounterRows(className);
    }
    return rows;
}

std::optional<std::vector<CounterMap>> countersOf(const std::string& className, const CounterRowsPtr& rows,
                                                  const std::vector<std::uint32_t>& places) {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    std::vector<CounterMap> counters;
    if (link == nullptr || !link->copyCounters(className, rows, places, counters)) {
        return std::nullopt;
    }
    return counters;
}
