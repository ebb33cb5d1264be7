// The vocabularies of a real host.
#include "agent/vocabulary/Vocabulary.h"

#include <gmock/gmock.h>

namespace kx::agent {
namespace {

Category category(const std::string& name, std::int64_t counterType, const std::vector<std::string>& ids) {
    Category result{name, {}};
    for (const auto& id : ids) {
        result.parameters.push_back({id, std::nullopt, {{"counter_type", counterType}}});
    }
    return result;
}

TEST(StandardVocabularies, NameTheCountersInTheOrderOfTheTablesColumns) {
    const Vocabulary expected{
        "KXABasicFunctionality",
        {},
        {category("counters_kx_quota", 1,
                  {"diskspace_used", "diskspace_softlimit", "diskspace_hardlimit", "diskspace_grace", "inodes_used",
                   "inodes_softlimit", "inodes_hardlimit", "inodes_grace"}),
         category("counters_kx_net", 2, {"bytes_in", "packets_in", "bytes_out", "packets_out"})}};
    EXPECT_THAT(standardVocabularies(std::nullopt), testing::Contains(expected));
}

TEST(StandardVocabularies, TheDefaultOneHasTheVersionWhenItIsKnown) {
    const Vocabulary expected{"", {{"kxversion", "7.0.1-42", {}}}, {}};
    EXPECT_EQ(standardVocabularies("7.0.1-42").front(), expected);
}

TEST(StandardVocabularies, TheDefaultOneIsEmptyWhenTheVersionIsUnknown) {
    EXPECT_EQ(standardVocabularies(std::nullopt).front(), Vocabulary{});
}

TEST(StandardVocabularies, AnEmptyVersionIsAVersion) {
    EXPECT_EQ(standardVocabularies("").front().parameters.at(0).value, "");
}

}  // namespace
}  // namespace kx::agent
