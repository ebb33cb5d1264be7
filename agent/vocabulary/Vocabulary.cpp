#include "agent/vocabulary/Vocabulary.h"

#include <utility>

namespace kx::agent {
namespace {

/// How the samples of a counter are read: as a level, or as an increase since the last report.
constexpr std::int64_t kLevel = 1;
constexpr std::int64_t kIncrease = 2;

Category makeCategory(std::string name, std::int64_t counterType, const std::vector<std::string>& ids) {
    Category category{std::move(name), {}};
    category.parameters.reserve(ids.size());
    for (const std::string& id : ids) {
        category.parameters.push_back({id, std::nullopt, {{"counter_type", counterType}}});
    }
    return category;
}

Vocabulary basicFunctionality() {
    Vocabulary vocabulary{kBasicFunctionality, {}, {}};
    vocabulary.categories.push_back(makeCategory(kQuotaClass, kLevel, quotaCounterNames()));
    vocabulary.categories.push_back(makeCategory(kNetworkClass, kIncrease, networkCounterNames()));
    return vocabulary;
}

}  // namespace

const std::vector<std::string>& quotaCounterNames() {
    static const std::vector<std::string> names{"diskspace_used",   "diskspace_softlimit", "diskspace_hardlimit",
                                                "diskspace_grace",  "inodes_used",         "inodes_softlimit",
                                                "inodes_hardlimit", "inodes_grace"};
    return names;
}

const std::vector<std::string>& networkCounterNames() {
    static const std::vector<std::string> names{"bytes_in", "packets_in", "bytes_out", "packets_out"};
    return names;
}

std::vector<Vocabulary> standardVocabularies(const std::optional<std::string>& productVersion) {
    Vocabulary server;
    if (productVersion) {
        server.parameters.push_back({"kxversion", *productVersion, {}});
    }
    return {std::move(server), basicFunctionality()};
}

}  // namespace kx::agent
