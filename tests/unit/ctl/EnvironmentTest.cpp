#include "ctl/view/Environment.h"

#include <gmock/gmock.h>

#include <functional>

#include "ctl/ExitCode.h"
#include "tests/support/MakeEnv.h"

namespace kx::ctl {
namespace {

using testing::ElementsAre;

wire::Environment container(int number, std::optional<int> veid, const std::string& name) {
    wire::Environment made = test::wireEnv(number);
    if (veid) {
        made.mutable_configuration()->set_veid(*veid);
    }
    made.mutable_configuration()->set_name(name);
    return made;
}

std::vector<std::string> namesOf(const std::vector<Environment>& environments) {
    std::vector<std::string> names;
    for (const Environment& one : environments) {
        names.push_back(one.name);
    }
    return names;
}

const auto kCache =
    test::makeCache({container(1, 300, "late"), container(2, std::nullopt, "b"), container(3, -7, "minus"),
                     container(4, std::nullopt, "a"), container(5, 7, "300"), container(6, 7, "seven")});

TEST(Environments, ComeByNumberAndThoseWithoutOneByNameBehind) {
    EXPECT_THAT(namesOf(readEnvironments(*kCache)), ElementsAre("minus", "300", "seven", "late", "a", "b"));
}

TEST(Environments, AreFoundByNumberNameAndIdentifier) {
    const auto found = [](const std::string& word) {
        return namesOf(findEnvironments(readEnvironments(*kCache), word));
    };
    EXPECT_THAT(found("-7"), ElementsAre("minus"));
    EXPECT_THAT(found("b"), ElementsAre("b"));
    EXPECT_THAT(found("00000000-0000-0000-0000-000000000001"), ElementsAre("late"));
    EXPECT_THAT(found("7"), ElementsAre("300", "seven"));
    EXPECT_THAT(found("300"), ElementsAre("300", "late"));
    EXPECT_THAT(found("nobody"), ElementsAre());
    EXPECT_THAT(found(""), ElementsAre());
}

std::string problemOf(const std::function<void()>& call) {
    try {
        call();
        return "none";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

TEST(Environments, AreSelectedByWordsAndPatternsInTheirOrder) {
    const auto all = readEnvironments(*kCache);
    const auto selected = [&](const std::vector<std::string>& words) {
        return namesOf(selectEnvironments(all, words));
    };
    EXPECT_THAT(selected({}), testing::SizeIs(6));
    EXPECT_THAT(selected({"b", "-7"}), ElementsAre("minus", "b"));
    EXPECT_THAT(selected({"*e*"}), ElementsAre("seven", "late"));
    EXPECT_THAT(selected({"30?"}), ElementsAre("300", "late"));
    EXPECT_THAT(selected({"[ab]", "a"}), ElementsAre("a", "b"));
    EXPECT_THAT(problemOf([&] { selected({"b", "x*"}); }), testing::HasSubstr("identifier x*;"));
}

TEST(Environments, MustBeOneWhereOneIsMeant) {
    const auto all = readEnvironments(*kCache);
    EXPECT_EQ(chooseEnvironment(all, "late").veid, 300);
    EXPECT_THAT(problemOf([&] { chooseEnvironment(all, "l*"); }), testing::HasSubstr("identifier l*;"));
    EXPECT_THAT(problemOf([&] { chooseEnvironment(all, "7"); }), testing::StartsWith("7 may be any of: 7 300 ("));
}

TEST(Environment, ShowsAnAddressWithThePrefixOfItsMask) {
    EXPECT_EQ(addressText({"10.0.0.1", "255.255.255.0"}), "10.0.0.1/24");
    EXPECT_EQ(addressText({"10.0.0.1", "255.255.255.255"}), "10.0.0.1/32");
    EXPECT_EQ(addressText({"10.0.0.1", "0.0.0.0"}), "10.0.0.1/0");
    EXPECT_EQ(addressText({"10.0.0.1", "255.0.255.0"}), "10.0.0.1/255.0.255.0");
    EXPECT_EQ(addressText({"10.0.0.1", "/24"}), "10.0.0.1//24");
    EXPECT_EQ(addressText({"no quad", ""}), "no quad");
    EXPECT_EQ(addressText({"fd00::1", "64"}), "fd00::1/64");
}

TEST(Environment, HasAddressesOfBothKinds) {
    Environment one;
    EXPECT_EQ(allAddresses(one), std::nullopt);
    one.inet6Addresses = std::vector{TextPair("fd00::1", "64")};
    EXPECT_EQ(allAddresses(one), one.inet6Addresses);
    one.addresses = std::vector{TextPair("10.0.0.1", "255.0.0.0")};
    EXPECT_THAT(*allAddresses(one), ElementsAre(TextPair("10.0.0.1", "255.0.0.0"), TextPair("fd00::1", "64")));
}

TEST(Environment, ShowsATemplateOnlyWithItsName) {
    Environment one;
    EXPECT_EQ(osTemplateText(one), "");
    one.osTemplate = TextPair("debian", "12");
    EXPECT_EQ(osTemplateText(one), "debian/12");
    one.osTemplate = TextPair("alpine", "");
    EXPECT_EQ(osTemplateText(one), "alpine");
    one.osTemplate = TextPair("", "9");
    EXPECT_EQ(osTemplateText(one), "");
}

TEST(Environment, HasInJsonWhatTheConfigurationHasAndNothingElse) {
    wire::Environment bare = container(1, std::nullopt, "\xff");
    bare.set_state(9);
    EXPECT_EQ(environmentJson(readEnvironment(*test::makeEnv(bare))).line(),
              "{\"eid\":\"00000000-0000-0000-0000-000000000001\",\"name\":\"\xEF\xBF\xBD\",\"name_base64\":\"/w==\","
              "\"type\":\"lumetra\",\"state\":9,\"transition\":0,\"transition_name\":\"none\"}");
}

TEST(Environment, HasEverythingInJson) {
    wire::Environment full = container(1, 101, "web");
    full.set_state(2);
    full.set_transition(3);
    auto& config = *full.mutable_configuration();
    config.set_hostname("h");
    config.set_description("d");
    config.mutable_os_template()->set_name("debian");
    config.mutable_os_template()->set_version("12");
    config.set_base_sample(std::string(wire::kEidBytes, '\x01'));
    auto* const address = config.mutable_addresses()->add_addresses();
    address->set_address("10.0.0.1");
    address->set_mask("255.0.0.0");
    auto* const inet6 = config.mutable_inet6_addresses()->add_addresses();
    inet6->set_address("fd00::1");
    inet6->set_prefix_length(64);
    config.mutable_templates();
    EXPECT_EQ(environmentJson(readEnvironment(*test::makeEnv(full))).line(),
              R"({"eid":"00000000-0000-0000-0000-000000000001","veid":101,"name":"web","type":"lumetra","state":2,)"
              R"("transition":3,"state_name":"running","transition_name":"freezing","hostname":"h","description":"d",)"
              R"("os_template":{"name":"debian","version":"12"},"base_sample":"01010101-0101-0101-0101-010101010101",)"
              R"("addresses":[{"address":"10.0.0.1","mask":"255.0.0.0"}],)"
              R"("inet6_addresses":[{"address":"fd00::1","prefix_length":64}],"templates":[]})");
}

}  // namespace
}  // namespace kx::ctl
