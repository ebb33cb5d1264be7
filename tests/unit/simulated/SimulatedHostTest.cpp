// What a described host publishes.
#include "agent/backends/simulated/SimulatedHost.h"

#include "Parsed.h"

namespace kx::agent::simulated {
namespace {

std::vector<Eid> eidsOf(const SimulatedHost& host) {
    std::vector<Eid> result;
    for (const auto& environment : host.image.environments) {
        result.push_back(environment.eid);
    }
    return result;
}

Eid eid(const std::string& name) {
    return Eid::fromName(kMachineId, name);
}

const Vocabulary& basicOf(const SimulatedHost& host) {
    for (const auto& vocabulary : host.image.vocabularies) {
        if (vocabulary.name == kBasicFunctionality) {
            return vocabulary;
        }
    }
    throw std::runtime_error("no vocabulary of that name");
}

TEST(SimulatedHost, MakesTheIdentifiersThatTheFileLeavesOut) {
    const auto host = hostOf(
        "environment = [ { name = 'web' }, { name = 'db' }, { name = 'web' }, { name = '' }, { name = 'web' } ]");
    EXPECT_THAT(eidsOf(host), testing::ElementsAre(eid("simulated/web"), eid("simulated/db"), eid("simulated/web#2"),
                                                   eid("simulated/"), eid("simulated/web#3")));
}

TEST(SimulatedHost, AnEnvironmentWithAnIdentifierCountsAsOneOfItsName) {
    const auto host =
        hostOf("environment = [ { name = 'web', eid = '0f8e5c1a-7a44-4c3b-9d1e-000000000101' }, { name = 'web' } ]");
    EXPECT_THAT(eidsOf(host), testing::ElementsAre(Eid::parse("0f8e5c1a-7a44-4c3b-9d1e-000000000101").value(),
                                                   eid("simulated/web#2")));
}

TEST(SimulatedHost, NamesThatDifferAfterAZeroByteAreDifferent) {
    const auto host = hostOf(R"(environment = [ { name = "a\u0000b" }, { name = "a\u0000c" } ])");
    EXPECT_THAT(eidsOf(host),
                testing::ElementsAre(eid(std::string("simulated/a\0b", 13)), eid(std::string("simulated/a\0c", 13))));
}

TEST(SimulatedHost, TakesTheNilIdentifierForOneLikeOthers) {
    const auto host = hostOf("[[environment]]\nname = 'zero'\neid = '00000000-0000-0000-0000-000000000000'\n");
    EXPECT_THAT(eidsOf(host), testing::ElementsAre(Eid{}));
}

TEST(SimulatedHost, AppendsTheGeneratedContainers) {
    const auto host = hostOf("[host]\ngenerate = 2\n[[environment]]\nname = 'web'\nveid = 2001\n");
    ASSERT_EQ(host.image.environments.size(), 3U);
    EXPECT_EQ(host.image.environments[0].name, "web");
    EXPECT_EQ(host.image.environments[1].veid, 2001);
    EXPECT_EQ(host.image.environments[2].veid, 2002);
}

TEST(SimulatedHost, KeepsTheCountersOfTheEnvironmentsThatHaveAny) {
    const auto host =
        hostOf("[[environment]]\nname = 'none'\n[[environment]]\nname = 'web'\n[environment.counters.c.i]\nn = -5\n");
    const std::map<Eid, Counters> expected{{eid("simulated/web"), {{"c", {{"i", {{"n", {-5, 0}}}}}}}}};
    EXPECT_EQ(host.counters, expected);
}

TEST(SimulatedHost, PublishesTheStandardVocabulariesOfItsVersion) {
    EXPECT_EQ(hostOf("[host]\nproduct_version = '7'\n").image.vocabularies, standardVocabularies("7"));
    EXPECT_EQ(hostOf("[host]\n").image.vocabularies, standardVocabularies(std::nullopt));
}

TEST(SimulatedHost, ReplacesADescribedCategoryInItsPlace) {
    const auto host = hostOf("[vocabulary.counters_kx_quota]\nparameters = [ { id = 'b' }, { id = 'a' } ]\n");
    const auto standard = standardVocabularies(std::nullopt).back();
    ASSERT_EQ(basicOf(host).categories.size(), 2U);
    EXPECT_EQ(basicOf(host).categories[0],
              (Category{"counters_kx_quota", {{"b", std::nullopt, {}}, {"a", std::nullopt, {}}}}));
    EXPECT_EQ(basicOf(host).categories[1], standard.categories[1]);
}

TEST(SimulatedHost, AppendsACategoryThatIsNotStandard) {
    const auto host = hostOf("[vocabulary.counters_mine]\nparameters = []\n");
    ASSERT_EQ(basicOf(host).categories.size(), 3U);
    EXPECT_EQ(basicOf(host).categories[2], (Category{"counters_mine", {}}));
}

}  // namespace
}  // namespace kx::agent::simulated
