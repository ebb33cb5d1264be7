#include "agent/vocabulary/Vocabulary.h"

#include <initializer_list>
#include <string_view>

namespace kx::agent {
namespace {

/// How the samples of a counter are read: as a level, or as an increase since the last report.
constexpr std::int64_t kLevel = 1;
constexpr std::int64_t kIncrease = 2;

Category makeCategory(std::string name, std::int64_t counterType, std::initializer_list<std::string_view> ids) {
    Category category{std::move(name), {}};
    for (const std::string_view id : ids) {
        category.parameters.push_back({std::string(id), std::nullopt, {{"counter_type", counterType}}});
    }
    return category;
}

Vocabulary basicFunctionality() {
    Vocabulary vocabulary{kBasicFunctionality, {}, {}};
    // Readers give the columns of their tables in the order of these lists.
    vocabulary.categories.push_back(
        makeCategory("counters_kx_quota", kLevel,
                     {"diskspace_used", "diskspace_softlimit", "diskspace_hardlimit", "diskspace_grace", "inodes_used",
                      "inodes_softlimit", "inodes_hardlimit", "inodes_grace"}));
    vocabulary.categories.push_back(
        makeCategory("counters_kx_net", kIncrease, {"bytes_in", "packets_in", "bytes_out", "packets_out"}));
    return vocabulary;
}

}  // namespace

std::vector<Vocabulary> standardVocabularies(const std::optional<std::string>& productVersion) {
    Vocabulary server;
    if (productVersion) {
        server.parameters.push_back({"kxversion", *productVersion, {}});
    }
    return {std::move(server), basicFunctionality()};
}

}  // namespace kx::agent
